#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "platform/directory/ldap_connection_private.h"

namespace dl
{
namespace
{

sigset_t PipeSignal()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

bool IsPending()
{
    sigset_t pending;
    return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

NoPipeSignal::NoPipeSignal() : was_pending_(IsPending())
{
    const sigset_t set = PipeSignal();
    pthread_sigmask(SIG_BLOCK, &set, &before_);
}

NoPipeSignal::~NoPipeSignal()
{
    const sigset_t set = PipeSignal();
    const timespec none{};
    // Ours is taken away; one that was there before stays for its receiver.
    if (!was_pending_ && IsPending())
        (void)sigtimedwait(&set, nullptr, &none);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

bool LdapConnection::Guard(LDAP* handle, int seconds, bool handshake)
{
    HandshakeDone();
    seconds_ = seconds;
    handshake_ = handshake;
    callback_ = {Connected, Closed, this};
    return ldap_set_option(handle, LDAP_OPT_CONNECT_CB, &callback_) == LDAP_OPT_SUCCESS;
}

int LdapConnection::Connected(LDAP*, Sockbuf* socket, LDAPURLDesc*, sockaddr*,
                              ldap_conncb* callback)
{
    auto* self = static_cast<LdapConnection*>(callback->lc_arg);
    int fd = -1;
    if (ber_sockbuf_ctrl(socket, LBER_SB_OPT_GET_FD, &fd) != 1)
        return -1;
    timeval limit{};
    limit.tv_sec = self->seconds_;
    if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0)
        return -1;
    if (self->handshake_)
        self->Watch(fd);
    return 0;
}

void LdapConnection::Watch(int fd)
{
    HandshakeDone();
    fd_ = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    done_ = false;
    watch_ = std::thread([this] {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!changed_.wait_for(lock, std::chrono::seconds(seconds_), [this] { return done_; }))
            (void)shutdown(fd_, SHUT_RDWR);  // the handshake's next read finds the end
    });
}

void LdapConnection::HandshakeDone()
{
    if (!watch_.joinable())
        return;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        done_ = true;
    }
    changed_.notify_all();
    watch_.join();
    close(fd_);
    fd_ = -1;
}

}  // namespace dl
