#include "platform/directory/ldif_edit.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace dl
{
namespace
{

constexpr int kLockPauseMs = 10;
constexpr std::size_t kCopyBytes = 1 << 16;

std::string Folder(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

bool SyncFolder(const std::string& path)
{
    const int fd = open(Folder(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool synced = fsync(fd) == 0;
    close(fd);
    return synced;
}

// The file that is being written; removed unless it was renamed.
class TempFile
{
 public:
    explicit TempFile(const std::string& beside) : path_(beside + ".XXXXXX")
    {
        fd_ = mkostemp(path_.data(), O_CLOEXEC);
    }
    ~TempFile()
    {
        if (fd_ < 0)
            return;
        close(fd_);
        if (!renamed_)
            (void)unlink(path_.c_str());
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    [[nodiscard]] bool IsOpen() const { return fd_ >= 0; }

    bool Write(const char* data, std::size_t size)
    {
        while (size > 0) {
            const ssize_t put = write(fd_, data, size);
            if (put < 0 && errno == EINTR)
                continue;
            if (put <= 0)
                return false;
            data += put;
            size -= static_cast<std::size_t>(put);
        }
        return true;
    }

    // Bytes [begin, end) of `from`.
    bool Copy(int from, std::uint64_t begin, std::uint64_t end)
    {
        std::vector<char> buffer(kCopyBytes);
        while (begin < end) {
            const std::size_t want =
                static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), end - begin));
            const ssize_t got = pread(from, buffer.data(), want, static_cast<off_t>(begin));
            if (got < 0 && errno == EINTR)
                continue;
            if (got == 0)
                errno = EIO;  // shorter than it was when it was read
            if (got <= 0 || !Write(buffer.data(), static_cast<std::size_t>(got)))
                return false;
            begin += static_cast<std::uint64_t>(got);
        }
        return true;
    }

    // Owner first: changing it may clear mode bits.
    bool Finish(const struct stat& state)
    {
        struct stat own {
        };
        if (fstat(fd_, &own) != 0)
            return false;
        if ((own.st_uid != state.st_uid || own.st_gid != state.st_gid) &&
            fchown(fd_, state.st_uid, state.st_gid) != 0)
            return false;
        return fchmod(fd_, state.st_mode & 07777) == 0 && fsync(fd_) == 0;
    }

    bool Rename(const std::string& to)
    {
        renamed_ = rename(path_.c_str(), to.c_str()) == 0;
        return renamed_;
    }

 private:
    std::string path_;
    int fd_ = -1;
    bool renamed_ = false;
};

bool WriteEdited(TempFile* out, int in, const struct stat& state,
                 const std::vector<LdifEdit>& edits)
{
    std::uint64_t at = 0;
    for (const LdifEdit& edit : edits) {
        if (!out->Copy(in, at, edit.begin) || !out->Write(edit.text.data(), edit.text.size()))
            return false;
        at = edit.end;
    }
    return out->Copy(in, at, static_cast<std::uint64_t>(state.st_size)) && out->Finish(state);
}

}  // namespace

bool SameState(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
           a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

LdifLock::LdifLock(const std::string& path, int seconds)
{
    const std::string name = path + ".lock";
    // Reading is enough for flock, so that writers under several users need no write permission
    // here.
    fd_ = open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd_ < 0 && errno == ENOENT) {
        fd_ = open(name.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
        struct stat state {
        };
        if (fd_ >= 0 && stat(path.c_str(), &state) == 0) {
            // Without permission the creator's own remain, and others are told that they cannot
            // lock.
            if (fchown(fd_, state.st_uid, state.st_gid) != 0 ||
                fchmod(fd_, state.st_mode & 0666) != 0)
                error_ = std::strerror(errno);
        }
    }
    if (fd_ < 0) {
        error_ = name + ": " + std::strerror(errno);
        return;
    }
    for (int left = seconds * 1000; left >= 0; left -= kLockPauseMs) {
        held_ = flock(fd_, LOCK_EX | LOCK_NB) == 0;
        if (held_ || (errno != EWOULDBLOCK && errno != EINTR))
            break;
        (void)poll(nullptr, 0, kLockPauseMs);
    }
    if (!held_)
        error_ = name + ": " + std::strerror(errno);
}

LdifLock::~LdifLock()
{
    if (fd_ >= 0)
        close(fd_);
}

LdifWrite ApplyLdifEdits(std::FILE* file, const struct stat& state, const std::string& path,
                         const std::vector<LdifEdit>& edits, std::string* error)
{
    TempFile out(path);
    if (!out.IsOpen() || !WriteEdited(&out, fileno(file), state, edits)) {
        *error = std::string("cannot write beside it: ") + std::strerror(errno);
        return LdifWrite::kFailed;
    }
    struct stat now {
    };
    if (stat(path.c_str(), &now) != 0 || !SameState(now, state)) {
        *error = "somebody else goes on changing it";
        return LdifWrite::kChanged;
    }
    if (!out.Rename(path)) {
        *error = std::string("cannot be replaced: ") + std::strerror(errno);
        return LdifWrite::kFailed;
    }
    if (!SyncFolder(path)) {
        *error = std::string("changed, but the folder cannot be synced: ") + std::strerror(errno);
        return LdifWrite::kUnsynced;
    }
    return LdifWrite::kDone;
}

}  // namespace dl
