// The sockets on which the intake listens: a TCP address or a local socket in the file system.
//
// A local socket file that nobody answers on, which a process that died left, is replaced; one that
// somebody answers on is left alone. The object closes its socket and removes its own file.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <memory>
#include <string>

namespace dl
{

class Listener
{
 public:
    // `where` is "ADDRESS:PORT", "[ADDRESS]:PORT" or a path with a '/'. `mode` is the local
    // socket's. Null, with one line of text in `error`, when it cannot be had.
    static std::unique_ptr<Listener> Open(const std::string& where, mode_t mode,
                                          std::string* error);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    [[nodiscard]] int Socket() const { return socket_; }
    // Where it listens, with the port that it was given when 0 was asked for.
    [[nodiscard]] const std::string& Name() const { return name_; }
    // Makes the local socket's file `user`'s. The group stays: it is the folder's where the folder
    // says so.
    [[nodiscard]] bool GiveTo(uid_t user) const;

 private:
    Listener() = default;
    bool OpenLocal(const std::string& path, mode_t mode, std::string* error);
    bool OpenTcp(const std::string& where, std::string* error);

    int socket_ = -1;
    std::string name_;
    std::string path_;  // of a local socket that is ours
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

// The other end of a connection, for the log: "127.0.0.1:4711", or "local" for a local socket.
[[nodiscard]] std::string PeerName(int socket);

}  // namespace dl
