#include "platform/files/folder_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

namespace dl
{

FolderLock::FolderLock(const std::string& folder)
    : fd_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
{
    int result = fd_ < 0 ? -1 : 0;
    if (result == 0) {
        do {
            result = ::flock(fd_, LOCK_EX);
        } while (result != 0 && errno == EINTR);
    }
    held_ = result == 0;
}

FolderLock::~FolderLock()
{
    if (fd_ >= 0)
        ::close(fd_);
}

}  // namespace dl
