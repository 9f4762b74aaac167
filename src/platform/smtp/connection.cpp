#include "platform/smtp/connection.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <system_error>

namespace dl::smtp
{
namespace
{

constexpr std::chrono::milliseconds kAbortStep{250};
constexpr std::size_t kReadSize = 16'384;

std::string Words(int error)
{
    return std::generic_category().message(error);
}

}  // namespace

bool Connection::OpenTcp(const std::string& host, int port, std::chrono::milliseconds timeout,
                         const std::function<bool()>& usable, std::string* problem)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (result != 0) {
        *problem = result == EAI_SYSTEM ? Words(errno) : gai_strerror(result);
        return false;
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> addresses(found, freeaddrinfo);
    for (const addrinfo* one = found; one && !Aborted(); one = one->ai_next)
        if (Connect(one->ai_family, one->ai_addr, one->ai_addrlen, timeout, problem)) {
            const int on = 1;
            (void)setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // it works without
            if (usable())
                return true;
            Close();
        }
    return false;
}

bool Connection::OpenUnix(const std::string& path, std::chrono::milliseconds timeout,
                          std::string* problem)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        *problem = "the name of the socket is too long";
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return Connect(AF_UNIX, &address, sizeof address, timeout, problem);
}

bool Connection::Connect(int family, const void* address, unsigned size,
                         std::chrono::milliseconds timeout, std::string* problem)
{
    Close();
    fd_ = socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0) {
        *problem = Words(errno);
        return false;
    }
    int error = connect(fd_, static_cast<const sockaddr*>(address), size) == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
        error = ETIMEDOUT;
        socklen_t length = sizeof error;
        if (Wait(POLLOUT, timeout) != 0 &&
            getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
            error = errno;
    }
    if (error == 0)
        return true;
    *problem = Words(error);
    Close();
    return false;
}

void Connection::Close()
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
}

short Connection::Wait(short events, std::chrono::milliseconds timeout) const
{
    while (!Aborted()) {
        const std::chrono::milliseconds step = std::min(timeout, kAbortStep);
        pollfd waited{fd_, events, 0};
        const int ready = poll(&waited, 1, static_cast<int>(step.count()));
        if (ready > 0)
            return waited.revents;
        if (ready < 0 && errno != EINTR)
            return POLLERR;
        timeout -= step;
        if (timeout.count() <= 0)
            break;
    }
    return 0;
}

Connection::Event Connection::Exchange(const std::string& output, std::size_t* written,
                                       std::string* input, std::chrono::milliseconds timeout)
{
    const bool writes = *written < output.size();
    const short ready = Wait(static_cast<short>(POLLIN | (writes ? POLLOUT : 0)), timeout);
    if (ready == 0)
        return Aborted() ? Event::kAborted : Event::kTimeout;
    // Read first: what a server says before it closes is its answer, and writing would fail.
    if ((ready & (POLLIN | POLLHUP | POLLERR)) != 0) {
        char bytes[kReadSize];
        const ssize_t got = recv(fd_, bytes, sizeof bytes, 0);
        if (got > 0)
            input->append(bytes, static_cast<std::size_t>(got));
        else if (got == 0 || (errno != EAGAIN && errno != EINTR))
            return Event::kClosed;
    }
    if (writes && (ready & POLLOUT) != 0) {
        const ssize_t sent =
            send(fd_, output.data() + *written, output.size() - *written, MSG_NOSIGNAL);
        if (sent > 0)
            *written += static_cast<std::size_t>(sent);
        else if (sent < 0 && errno != EAGAIN && errno != EINTR && input->empty())
            return Event::kClosed;
    }
    return Event::kProgress;
}

}  // namespace dl::smtp
