// The intake in a thread of the test, on a local socket and a free port, with a queue of the test's
// own, and a client that speaks to it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "platform/queue/queue.h"
#include "tests/support/fixture.h"
#include "tests/support/queued.h"
#include "tools/dlsubmit/lmtp_server.h"

namespace dl::testing
{

class Client
{
 public:
    explicit Client(const std::string& path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size());
        socket_ = socket(AF_UNIX, SOCK_STREAM, 0);
        Connect(reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    explicit Client(int port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        socket_ = socket(AF_INET, SOCK_STREAM, 0);
        Connect(reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    Client(Client&& other) noexcept : socket_(std::exchange(other.socket_, -1)) {}
    ~Client() { Close(); }

    void Close()
    {
        if (socket_ >= 0)
            close(std::exchange(socket_, -1));
    }
    // The client has said all.
    void EndSending() { (void)shutdown(socket_, SHUT_WR); }
    // Reads while it writes; false when the server has closed.
    bool Send(std::string_view bytes)
    {
        while (!bytes.empty()) {
            pollfd poll_for{socket_, POLLIN | POLLOUT, 0};
            if (poll(&poll_for, 1, 20'000) <= 0)
                return false;
            if ((poll_for.revents & POLLIN) && !Fill())
                return false;
            if (!(poll_for.revents & POLLOUT))
                continue;
            const ssize_t sent =
                send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent < 0 && errno != EAGAIN)
                return false;
            bytes.remove_prefix(sent < 0 ? 0 : static_cast<std::size_t>(sent));
        }
        return true;
    }
    // The next `lines` reply lines, fewer when the server closes or 20 seconds are over.
    std::string Replies(int lines)
    {
        std::string replies;
        while (lines > 0) {
            const std::size_t end = in_.find('\n', begin_);
            if (end != std::string::npos) {
                replies.append(in_, begin_, end + 1 - begin_);
                begin_ = end + 1;
                --lines;
                continue;
            }
            in_.erase(0, std::exchange(begin_, 0));
            pollfd poll_for{socket_, POLLIN, 0};
            if (poll(&poll_for, 1, 20'000) <= 0 || !Fill())
                break;
        }
        return replies;
    }
    std::string All() { return Replies(10'000'000); }
    std::string Ask(const std::string& send, int lines)
    {
        (void)Send(send);  // the reply shows
        return Replies(lines);
    }
    // Greeting, LHLO and up to the answer to DATA: a text may come. The last reply.
    std::string Start(const std::string& recipients = "RCPT TO:<l@x.org>\r\n", int count = 1)
    {
        (void)Ask("LHLO c\r\nMAIL FROM:<a@b.org>\r\n" + recipients + "DATA\r\n", 8 + count);
        return Replies(1);
    }

 private:
    void Connect(const sockaddr* address, socklen_t size)
    {
        if (connect(socket_, address, size) != 0)
            Close();
    }
    bool Fill()
    {
        char block[65536];
        const ssize_t got = recv(socket_, block, sizeof block, MSG_DONTWAIT);
        if (got < 0 && errno == EAGAIN)
            return true;
        if (got <= 0)
            return false;
        in_.append(block, static_cast<std::size_t>(got));
        return true;
    }
    int socket_ = -1;
    std::string in_;
    std::size_t begin_ = 0;  // of what was not given out
};

class LmtpFixture : public Fixture
{
 protected:
    LmtpFixture() : path(Path("s"))
    {
        settings.limits.host = "h";
        settings.limits.max_message_bytes = 20'000'000;
    }
    ~LmtpFixture() override
    {
        StopServer();
        MQEnd();
    }

    // Opens the queue in Path("queue") unless the test has put another in its place.
    void StartServer()
    {
        std::string error;
        std::vector<std::unique_ptr<Listener>> listeners;
        listeners.push_back(Listener::Open(path, 0600, &error));
        listeners.push_back(Listener::Open("127.0.0.1:0", 0600, &error));
        ASSERT_TRUE(listeners[0] && listeners[1]) << error;
        const std::string& name = listeners[1]->Name();
        port = std::stoi(name.substr(name.find(':') + 1));
        server = std::make_unique<LmtpServer>(settings, std::move(listeners));
        thread = std::thread([this] { server->Run(); });
    }
    void StopServer()
    {
        if (!thread.joinable())
            return;
        server->Stop();
        thread.join();
        server.reset();
    }
    void SetUp() override { ASSERT_TRUE(MQInitAt(Path("queue"))); }

    static std::string Message(const QueueItem& item)
    {
        return ReadFile(GetMQPathName(item.id, ".msg"));
    }
    [[nodiscard]] std::size_t MessageFiles() const { return FileNames(Path("queue/msg")).size(); }

    const std::string path;
    int port = 0;
    LmtpSettings settings;
    std::unique_ptr<LmtpServer> server;
    std::thread thread;
};

constexpr char kMayCome[] = "354 The text, then a line with a dot\r\n";

}  // namespace dl::testing
