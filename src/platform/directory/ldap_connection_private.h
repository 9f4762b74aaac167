// The socket under an LDAP session: no write and no TLS handshake on it waits without an end.
//
// The library's own time-outs cover connecting and answers only: a request that the server does not
// take blocks for ever, and so does a TLS handshake in which the server says nothing (the library
// reads again and again).
#pragma once

#include <ldap.h>
#include <signal.h>

#include <condition_variable>
#include <mutex>
#include <thread>

namespace dl
{

// While it lives, writing to a connection that the server has closed fails, and does not end the
// process.
class NoPipeSignal
{
 public:
    NoPipeSignal();
    ~NoPipeSignal();
    NoPipeSignal(const NoPipeSignal&) = delete;
    NoPipeSignal& operator=(const NoPipeSignal&) = delete;

 private:
    sigset_t before_{};
    bool was_pending_ = false;
};

class LdapConnection
{
 public:
    LdapConnection() = default;
    ~LdapConnection() { HandshakeDone(); }
    LdapConnection(const LdapConnection&) = delete;
    LdapConnection& operator=(const LdapConnection&) = delete;

    // Before `handle` connects; this object must outlive it. With `handshake` the socket is shut
    // down, `seconds` after it was connected, unless HandshakeDone() came first.
    [[nodiscard]] bool Guard(LDAP* handle, int seconds, bool handshake);
    void HandshakeDone();

 private:
    static int Connected(LDAP*, Sockbuf* socket, LDAPURLDesc*, sockaddr*, ldap_conncb* callback);
    static void Closed(LDAP*, Sockbuf*, ldap_conncb*) {}
    void Watch(int fd);

    ldap_conncb callback_{};
    int seconds_ = 0;
    bool handshake_ = false;
    int fd_ = -1;  // a duplicate of our own: the library may close its while we shut it down
    std::thread watch_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool done_ = false;
};

}  // namespace dl
