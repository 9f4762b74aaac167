// Files whose n-th call of a kind fails, as on a full or a broken disk.
//
// Installs itself for as long as it lives, in front of the real files. Only calls on the watched
// paths are counted and can fail; a file stays watched under the path by which it was opened. The
// files may be used by any thread; that they die, by one only.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/files/files.h"
#include "tests/support/faults.h"

namespace dl::testing
{

enum class FileCall {
    kOpen,    // for reading
    kRead,    // the file opens, and no byte of it can be read
    kCreate,  // opening for writing
    kWrite,
    kClose,  // of a file that was written
    kRemove,
    kRename,
    kLink,
};

class FailingFiles : public FileBackend, public Faults<FileCall>
{
 public:
    FailingFiles() : before_(SetFileBackend(this)) {}
    ~FailingFiles() override { SetFileBackend(before_); }

    // Watches only paths that hold one of `parts`; none: all paths.
    void Watch(std::vector<std::string> parts) { parts_ = std::move(parts); }
    // So many calls more are good, all others fail, as in a process that is killed there; a part of
    // the bytes of the last may have come to the disk.
    void DieAfter(int calls) { left_ = calls; }
    void Revive() { left_.reset(); }
    [[nodiscard]] bool Died() const { return left_ && *left_ < 0; }

    std::FILE* Open(const char* path, const char* mode) override
    {
        const bool writes = mode[0] != 'r';
        const bool watched = Watched(path);
        if (watched && Fails(writes ? FileCall::kCreate : FileCall::kOpen, writes ? ENOSPC : EIO))
            return nullptr;
        if (watched && !writes && Fails(FileCall::kRead, 0))
            return PosixFiles().Open("/proc/self/mem", mode);  // its first byte is an EIO
        std::FILE* file = PosixFiles().Open(path, mode);
        if (file && watched && (writes || std::strchr(mode, '+'))) {
            const std::lock_guard<std::mutex> guard(mutex_);
            written_.insert(file);
        }
        return file;
    }
    bool Write(std::FILE* file, const void* data, std::size_t size) override
    {
        if (!IsWritten(file, false) || !Fails(FileCall::kWrite, ENOSPC))
            return PosixFiles().Write(file, data, size);
        if (Died())
            (void)PosixFiles().Write(file, data, size / 2);
        return false;
    }
    bool Close(std::FILE* file) override
    {
        const bool fails = IsWritten(file, true) && Fails(FileCall::kClose, ENOSPC);
        return PosixFiles().Close(file) && !fails;
    }
    bool Remove(const char* path) override
    {
        return !(Watched(path) && Fails(FileCall::kRemove, EIO)) && PosixFiles().Remove(path);
    }
    bool Rename(const char* from, const char* to) override
    {
        return !(Watched(to) && Fails(FileCall::kRename, EIO)) && PosixFiles().Rename(from, to);
    }
    bool Link(const char* from, const char* to) override
    {
        return !(Watched(to) && Fails(FileCall::kLink, EPERM)) && PosixFiles().Link(from, to);
    }

 private:
    bool Watched(const std::string& path) const
    {
        return parts_.empty() || std::any_of(parts_.begin(), parts_.end(), [&](const auto& part) {
                   return path.find(part) != std::string::npos;
               });
    }
    // Whether `file` is watched and written; `forget` it then.
    bool IsWritten(std::FILE* file, bool forget)
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        return (forget ? written_.erase(file) : written_.count(file)) > 0;
    }
    bool Fails(FileCall call, int error)
    {
        const bool fails = Faults::Fails(call) || (left_ && (Died() || --*left_ < 0));
        if (fails)
            errno = error;
        return fails;
    }

    FileBackend* before_;
    std::mutex mutex_;
    std::vector<std::string> parts_;
    std::set<std::FILE*> written_;
    std::optional<int> left_;  // calls until it dies
};

}  // namespace dl::testing
