#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "platform/process/process.h"

namespace dl
{

void NotifyServiceManager(const char* state)
{
    const char* variable = std::getenv("NOTIFY_SOCKET");
    const std::string_view path = variable ? variable : "";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() < 2 || (path[0] != '/' && path[0] != '@') ||
        path.size() >= sizeof address.sun_path)
        return;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path[0] == '@')
        address.sun_path[0] = '\0';  // a name in the abstract name space
    const int file = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (file < 0)
        return;
    const timeval limit{2, 0};
    (void)setsockopt(file, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    // A service manager that does not listen is no reason not to serve.
    (void)sendto(file, state, std::strlen(state), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&address),
                 static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size()));
    close(file);
}

}  // namespace dl
