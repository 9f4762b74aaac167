#include "tools/dlsubmit/lmtp_listener.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace dl
{
namespace
{

constexpr int kBacklog = 128;
constexpr int kKind = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;

std::string Words(int error)
{
    return std::generic_category().message(error);
}

bool Fail(std::string* error, const std::string& what, const std::string& why)
{
    *error = what + ": " + why;
    return false;
}

std::string NameOf(const sockaddr_storage& address, socklen_t size)
{
    char host[NI_MAXHOST];
    char port[NI_MAXSERV];
    if (address.ss_family == AF_UNIX ||
        getnameinfo(reinterpret_cast<const sockaddr*>(&address), size, host, sizeof host, port,
                    sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return "local";
    return address.ss_family == AF_INET6 ? "[" + std::string(host) + "]:" + port
                                         : std::string(host) + ":" + port;
}

// Whether a process answers on the local socket of that name.
bool Answers(const sockaddr_un& address)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool refused =
        fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
        errno == ECONNREFUSED;
    close(fd);
    return !refused;
}

bool IsLocalSocket(const std::string& path)
{
    struct stat state {
    };
    return lstat(path.c_str(), &state) == 0 && S_ISSOCK(state.st_mode);
}

}  // namespace

std::unique_ptr<Listener> Listener::Open(const std::string& where, mode_t mode, std::string* error)
{
    std::unique_ptr<Listener> listener(new Listener);
    const bool local = where.find('/') != std::string::npos;
    if (!(local ? listener->OpenLocal(where, mode, error) : listener->OpenTcp(where, error)))
        return nullptr;
    return listener;
}

Listener::~Listener()
{
    struct stat state {
    };
    if (!path_.empty() && lstat(path_.c_str(), &state) == 0 && state.st_dev == device_ &&
        state.st_ino == inode_)
        (void)unlink(path_.c_str());
    if (socket_ >= 0)
        close(socket_);
}

bool Listener::OpenLocal(const std::string& path, mode_t mode, std::string* error)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return Fail(error, path, "the path of a local socket may have 107 bytes");
    std::memcpy(address.sun_path, path.c_str(), path.size());
    if (IsLocalSocket(path) && !Answers(address))
        (void)unlink(path.c_str());  // bind says what is wrong with it
    socket_ = socket(AF_UNIX, kKind, 0);
    if (socket_ < 0)
        return Fail(error, path, Words(errno));
    const mode_t before = umask(0177);  // nobody else before it has its mode
    const int bound = bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int why = errno;
    umask(before);
    if (bound != 0)
        return Fail(error, path, Words(why));
    struct stat state {
    };
    if (chmod(path.c_str(), mode) != 0 || listen(socket_, kBacklog) != 0 ||
        lstat(path.c_str(), &state) != 0)
        return Fail(error, path, Words(errno));
    name_ = path_ = path;
    device_ = state.st_dev;
    inode_ = state.st_ino;
    return true;
}

bool Listener::OpenTcp(const std::string& where, std::string* error)
{
    const std::size_t colon = where.rfind(':');
    std::string host = where.substr(0, colon);
    // The resolver would take a larger port modulo 65536.
    const bool digits = where.find_first_not_of("0123456789", colon + 1) == std::string::npos;
    if (colon == std::string::npos || colon == 0 || colon + 1 == where.size() ||
        (digits && std::strtoul(where.c_str() + colon + 1, nullptr, 10) > 65535))
        return Fail(error, where, "neither ADDRESS:PORT nor the path of a local socket");
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const int code = getaddrinfo(host.c_str(), where.c_str() + colon + 1, &hints, &found);
    if (code != 0)
        return Fail(error, where, gai_strerror(code));
    socket_ = socket(found->ai_family, kKind, 0);
    const int on = 1;
    const bool listens =
        socket_ >= 0 && setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
        bind(socket_, found->ai_addr, found->ai_addrlen) == 0 && listen(socket_, kBacklog) == 0;
    const int why = errno;
    freeaddrinfo(found);
    if (!listens)
        return Fail(error, where, Words(why));
    sockaddr_storage own{};
    socklen_t size = sizeof own;
    if (getsockname(socket_, reinterpret_cast<sockaddr*>(&own), &size) != 0)
        return Fail(error, where, Words(errno));
    name_ = NameOf(own, size);
    return true;
}

bool Listener::GiveTo(uid_t user) const
{
    return path_.empty() || lchown(path_.c_str(), user, static_cast<gid_t>(-1)) == 0;
}

std::string PeerName(int socket)
{
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    if (getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) != 0)
        return "a client that has gone";
    return NameOf(peer, size);
}

}  // namespace dl
