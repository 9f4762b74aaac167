#include "platform/process/run_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "platform/config/config.h"

namespace dl::process
{
namespace
{

constexpr std::size_t kMaxLineBytes = 255;
constexpr int kMaxTries = 100;

std::string RunFolder()
{
    return GetPrivateProfileString("Process", "RunDir", "/run/dlmanager", 4096, kMainConfig);
}

struct flock WholeFile()
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

pid_t NumberIn(const std::string& line)
{
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), pid);
    return error == std::errc() && pid > 0 ? pid : 0;
}

// The process whose lock stands against ours; 0 when none does.
pid_t HolderOf(int file, const std::string& path)
{
    struct flock lock = WholeFile();
    if (fcntl(file, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK)
        return 0;
    // A holder in another process-id name space has no number here; what it wrote is the best there
    // is.
    return lock.l_pid > 0 ? lock.l_pid : NumberIn(ReadFirstLine(path));
}

// Whether `path` still is the open file, and not another that took its place before it was locked.
bool IsStill(const std::string& path, int file)
{
    struct stat there = {};
    struct stat ours = {};
    return stat(path.c_str(), &there) == 0 && fstat(file, &ours) == 0 &&
           there.st_ino == ours.st_ino && there.st_dev == ours.st_dev;
}

PidFile Close(PidFile taken, int error)
{
    close(taken.file);
    taken.file = -1;
    taken.error = error;
    return taken;
}

}  // namespace

bool IsProcessName(const char* name)
{
    const std::string_view text = name ? name : "";
    return !text.empty() && text.size() <= kMaxNameBytes &&
           text.find_first_not_of(
               "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_") ==
               std::string_view::npos;
}

std::string RunPath(const char* name, const char* suffix)
{
    return RunFolder() + "/" + name + suffix;
}

void MakeRunFolder()
{
    (void)mkdir(RunFolder().c_str(), 0755);
}  // the open that follows tells

PidFile TakePidFile(const std::string& path)
{
    PidFile taken;
    for (int tries = 0; tries < kMaxTries; ++tries) {
        taken.file =
            open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644);
        if (taken.file < 0) {
            taken.error = errno;
            return taken;
        }
        struct flock lock = WholeFile();
        if (fcntl(taken.file, F_SETLK, &lock) != 0) {
            const int error = errno;
            if (error != EAGAIN && error != EACCES)
                return Close(taken, error);
            taken.holder = HolderOf(taken.file, path);
            taken.held = true;
            taken = Close(taken, error);
            if (taken.holder != 0)
                return taken;
            continue;  // it ends or starts just now
        }
        taken.held = false;
        if (!IsStill(path, taken.file)) {
            taken = Close(taken, EAGAIN);
            continue;
        }
        const std::string line = std::to_string(getpid()) + "\n";
        if (ftruncate(taken.file, 0) != 0 ||
            pwrite(taken.file, line.data(), line.size(), 0) != static_cast<ssize_t>(line.size())) {
            const int error = errno;
            (void)unlink(path.c_str());
            return Close(taken, error);
        }
        return taken;
    }
    return taken;
}

pid_t HolderOf(const std::string& path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (file < 0)
        return 0;
    const pid_t holder = HolderOf(file, path);
    close(file);
    return holder;
}

bool WriteStatusLine(int file, const char* status)
{
    char line[kMaxLineBytes + 1];
    std::size_t size = 0;
    for (; size < kMaxLineBytes && status[size] != '\0' && status[size] != '\n'; ++size)
        line[size] = status[size];
    line[size++] = '\n';
    // One write before the cut: a reader, who takes the first line, sees the old text or the new
    // one.
    return lseek(file, 0, SEEK_SET) == 0 && write(file, line, size) == static_cast<ssize_t>(size) &&
           ftruncate(file, static_cast<off_t>(size)) == 0;
}

std::string ReadFirstLine(const std::string& path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (file < 0)
        return {};
    char buffer[kMaxLineBytes + 1];
    const ssize_t count = read(file, buffer, sizeof buffer);
    close(file);
    std::string line(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
    return line.substr(0, line.find('\n'));
}

}  // namespace dl::process
