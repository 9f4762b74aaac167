#include "platform/config/config_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace dl::config
{
namespace
{

constexpr mode_t kNewMode = 0640;  // the file may hold a bind password

// Gives the file owner, group and mode of `old`. When the group cannot be kept, the new group gets
// no more than anybody had.
bool KeepOwnership(int file, const struct stat& old)
{
    mode_t mode = old.st_mode & 07777;
    if (fchown(file, old.st_uid, old.st_gid) != 0 && fchown(file, uid_t(-1), old.st_gid) != 0)
        mode = (mode & ~mode_t{070}) | ((mode & mode_t{07}) << 3);
    return fchmod(file, mode) == 0;
}

bool WriteAll(int file, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = write(file, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

bool ReadUpTo(int file, std::size_t limit, std::string* bytes)
{
    char buffer[65536];
    while (bytes->size() < limit) {
        const ssize_t count = read(file, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return false;
        if (count == 0)
            return true;
        bytes->append(buffer, static_cast<std::size_t>(count));
    }
    return true;
}

void SyncFolderOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const int file = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (file < 0)
        return;
    (void)fsync(
        file);  // the new file is in place already; a crash may at worst bring the old one back
    close(file);
}

FileBytes Failed(FileBytes read, int error)
{
    read.result =
        error == ENOENT || error == ENOTDIR ? ReadResult::kMissing : ReadResult::kUnreadable;
    read.error = error;
    read.bytes.clear();
    return read;
}

}  // namespace

FileBytes ReadWholeFile(const std::string& path)
{
    FileBytes read;
    // Without O_NONBLOCK a FIFO of that name would hold the service for ever.
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0)
        return Failed(read, errno);
    int error = 0;
    if (fstat(file, &read.state) != 0)
        error = errno;
    else if (!S_ISREG(read.state.st_mode))
        error = S_ISDIR(read.state.st_mode) ? EISDIR : EINVAL;
    else if (!ReadUpTo(file, kMaxFileBytes + 1, &read.bytes))
        error = errno;
    close(file);
    if (error != 0)
        return Failed(read, error);
    read.result = ReadResult::kDone;
    if (read.bytes.size() > kMaxFileBytes) {
        read.result = ReadResult::kTooLong;
        const std::size_t end = read.bytes.rfind('\n', kMaxFileBytes - 1);
        read.bytes.resize(end == std::string::npos ? 0 : end + 1);
    }
    return read;
}

bool ReplaceWholeFile(const std::string& path, std::string_view bytes, const struct stat* old)
{
    const std::string temp = path + ".part";
    (void)unlink(temp.c_str());  // of a writer that died; a living one holds the lock
    const int file = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                          old ? mode_t{0600} : kNewMode);
    if (file < 0)
        return false;
    bool ok = WriteAll(file, bytes) && (!old || KeepOwnership(file, *old));
    ok = ok && fsync(file) == 0;
    ok = close(file) == 0 && ok;
    ok = ok && std::rename(temp.c_str(), path.c_str()) == 0;
    if (!ok) {
        (void)unlink(temp.c_str());
        return false;
    }
    SyncFolderOf(path);
    return true;
}

WriteLock::WriteLock(const std::string& path, const struct stat* old)
{
    const std::string name = path + ".lock";
    const mode_t mode = old ? old->st_mode & 0666 : kNewMode;
    const int file = open(name.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, mode);
    if (file < 0)
        return;
    if (old && geteuid() == 0)
        (void)fchown(file, old->st_uid, old->st_gid);  // so that the file's owner can lock it too
    int result = flock(file, LOCK_EX);
    while (result != 0 && errno == EINTR)
        result = flock(file, LOCK_EX);
    if (result == 0)
        file_ = file;
    else
        close(file);
}

WriteLock::~WriteLock()
{
    if (file_ >= 0)
        close(file_);
}

}  // namespace dl::config
