#include "platform/queue/news_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <thread>

namespace dl
{

NewsWatch::~NewsWatch()
{
    if (fd_ >= 0)
        close(fd_);
}

bool NewsWatch::Wait(const std::string& path, std::chrono::milliseconds longest)
{
    if (!tried_) {
        tried_ = true;
        fd_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        if (fd_ >= 0 && inotify_add_watch(fd_, path.c_str(), IN_ATTRIB) < 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    if (fd_ < 0) {
        std::this_thread::sleep_for(longest);
        return false;
    }
    pollfd polled{fd_, POLLIN, 0};
    if (poll(&polled, 1, static_cast<int>(longest.count())) <= 0)
        return false;
    char events[4096];
    while (read(fd_, events, sizeof events) > 0) {
    }
    return true;
}

}  // namespace dl
