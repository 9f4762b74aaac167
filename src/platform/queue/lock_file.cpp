#include "platform/queue/lock_file.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <vector>

namespace dl
{

namespace
{

// Locks belong to the open file, which parent and child would share.
class ForkGuard
{
 public:
    static ForkGuard& Get()
    {
        // Never ends: a queue that is closed at the program's exit still needs it.
        static ForkGuard& guard = *new ForkGuard;
        return guard;
    }
    void Add(int fd)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        fds_.push_back(fd);
    }
    void Close(int fd)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto place = std::find(fds_.begin(), fds_.end(), fd);
        if (place == fds_.end())
            return;  // closed at the fork; the number may be another file's by now
        fds_.erase(place);
        close(fd);
    }

 private:
    ForkGuard()
    {
        pthread_atfork([] { Get().mutex_.lock(); }, [] { Get().mutex_.unlock(); },
                       [] {
                           for (const int fd : Get().fds_)
                               close(fd);
                           Get().fds_.clear();
                           Get().mutex_.unlock();
                       });
    }

    std::mutex mutex_;
    std::vector<int> fds_;
};

bool LockByte(int fd, off_t byte, short type, int command)
{
    struct flock lock {
    };
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    int result = 0;
    do {
        result = fcntl(fd, command, &lock);
    } while (result < 0 && errno == EINTR);
    return result == 0 && (command != F_OFD_GETLK || lock.l_type == F_UNLCK);
}

}  // namespace

LockFile::~LockFile()
{
    if (fd_ >= 0)
        ForkGuard::Get().Close(fd_);
}

bool LockFile::Open(const std::string& path)
{
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd_ >= 0)
        ForkGuard::Get().Add(fd_);
    return fd_ >= 0;
}

bool LockFile::Try(off_t byte) const
{
    return LockByte(fd_, byte, F_WRLCK, F_OFD_SETLK);
}

bool LockFile::Wait(off_t byte) const
{
    return LockByte(fd_, byte, F_WRLCK, F_OFD_SETLKW);
}

bool LockFile::WaitShared(off_t byte) const
{
    return LockByte(fd_, byte, F_RDLCK, F_OFD_SETLKW);
}

// What could be locked can be unlocked.
void LockFile::Unlock(off_t byte) const
{
    (void)LockByte(fd_, byte, F_UNLCK, F_OFD_SETLK);
}

bool LockFile::IsLocked(off_t byte) const
{
    return !LockByte(fd_, byte, F_WRLCK, F_OFD_GETLK);
}

}  // namespace dl
