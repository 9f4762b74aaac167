// One connection to a server, TCP or Unix socket, written and read at once.
//
// Never blocks longer than it is told to; a set `abort` flag (not owned, may be null) ends each
// wait within a quarter of a second. One thread at a time.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>

namespace dl::smtp
{

class Connection
{
 public:
    explicit Connection(const std::atomic<bool>* abort) : abort_(abort) {}
    ~Connection() { Close(); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Tries the addresses of `host` one after another (RFC 5321, 5.1), each for `timeout`, until
    // one is connected and `usable` says so. False, with plain words in `problem`, where `usable`
    // puts its own.
    [[nodiscard]] bool OpenTcp(const std::string& host, int port, std::chrono::milliseconds timeout,
                               const std::function<bool()>& usable, std::string* problem);
    [[nodiscard]] bool OpenUnix(const std::string& path, std::chrono::milliseconds timeout,
                                std::string* problem);
    void Close();
    [[nodiscard]] bool IsOpen() const { return fd_ >= 0; }

    // kProgress: some bytes went or came. The others end the connection's use; kClosed also when
    // the network failed.
    enum class Event { kProgress, kClosed, kTimeout, kAborted };
    // Writes what it can of `output` behind `*written`, which it raises, and appends what has come
    // to `input`; waits until one of them is possible.
    [[nodiscard]] Event Exchange(const std::string& output, std::size_t* written,
                                 std::string* input, std::chrono::milliseconds timeout);

 private:
    [[nodiscard]] bool Connect(int family, const void* address, unsigned size,
                               std::chrono::milliseconds timeout, std::string* problem);
    // The events that came, 0 after the time.
    [[nodiscard]] short Wait(short events, std::chrono::milliseconds timeout) const;
    [[nodiscard]] bool Aborted() const { return abort_ && abort_->load(); }

    const std::atomic<bool>* abort_;
    int fd_ = -1;
};

}  // namespace dl::smtp
