#include "tests/support/scripted_relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace dl::testing
{

struct ScriptedRelay::Client {
    int fd;
    int number;
    std::string input = {};
    std::string output = {};
    int transaction = 1;
    int asked = 0;
    bool in_data = false;
    bool has_sender = false;
    RelayedMessage message = {};
    std::string last_reply = {};
};

namespace
{

bool WriteAll(int fd, const std::string& bytes)
{
    for (std::size_t at = 0; at < bytes.size();) {
        const ssize_t sent = send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        at += static_cast<std::size_t>(sent);
    }
    return true;
}

std::string Bracketed(const std::string& line)
{
    const std::size_t begin = line.find('<');
    const std::size_t end = line.rfind('>');
    return begin == std::string::npos ? "" : line.substr(begin + 1, end - begin - 1);
}

}  // namespace

ScriptedRelay::ScriptedRelay(Script script, Options options)
    : script_(std::move(script)), options_(std::move(options))
{
    const bool tcp = options_.socket.empty();
    listener_ = socket(tcp ? AF_INET : AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un local{};
    sockaddr_in inet{};
    socklen_t size = sizeof inet;
    const int on = 1;
    (void)setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    inet.sin_family = AF_INET;
    inet.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    inet.sin_port = htons(static_cast<std::uint16_t>(options_.port));
    local.sun_family = AF_UNIX;
    std::strncpy(local.sun_path, options_.socket.c_str(), sizeof local.sun_path - 1);
    const int bound = tcp ? bind(listener_, reinterpret_cast<sockaddr*>(&inet), size)
                          : bind(listener_, reinterpret_cast<sockaddr*>(&local), sizeof local);
    if (bound != 0 || listen(listener_, 64) != 0)
        throw std::runtime_error("the scripted relay cannot listen");
    if (tcp && getsockname(listener_, reinterpret_cast<sockaddr*>(&inet), &size) == 0)
        port_ = ntohs(inet.sin_port);
    accepting_ = std::thread([this] { Listen(); });
}

ScriptedRelay::~ScriptedRelay()
{
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        ends_ = true;
        for (const int fd : open_)
            shutdown(fd, SHUT_RDWR);
    }
    accepting_.join();
    for (std::thread& thread : threads_)
        thread.join();
    close(listener_);
}

void ScriptedRelay::Listen()
{
    for (;;) {
        pollfd waited{listener_, POLLIN, 0};
        const int ready = poll(&waited, 1, 20);
        const std::lock_guard<std::mutex> guard(mutex_);
        if (ends_)
            return;
        if (ready <= 0)
            continue;
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        const int on = 1;
        (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        open_.push_back(fd);
        threads_.emplace_back([this, fd, number = ++connections_] { Serve(fd, number); });
    }
}

void ScriptedRelay::Serve(int fd, int number)
{
    Client client{fd, number};
    bool goes_on = Step(client, {"CONNECT", ""}, "220 relay.example.org ready");
    while (goes_on) {
        const std::size_t end = client.input.find("\r\n");
        if (end == std::string::npos) {
            char bytes[16384];
            goes_on = WriteAll(fd, client.output);
            client.output.clear();
            const ssize_t got = goes_on ? recv(fd, bytes, sizeof bytes, 0) : 0;
            goes_on = got > 0;
            if (goes_on)
                client.input.append(bytes, static_cast<std::size_t>(got));
            continue;
        }
        const std::string line = client.input.substr(0, end);
        client.input.erase(0, end + 2);
        if (!client.in_data)
            goes_on = Command(client, line);
        else if (line == ".")
            goes_on = EndOfMessage(client);
        else
            client.message.text += (line.starts_with('.') ? line.substr(1) : line) + "\r\n";
    }
    (void)WriteAll(fd, client.output);
    const std::lock_guard<std::mutex> guard(mutex_);
    open_.remove(fd);
    close(fd);
}

bool ScriptedRelay::Step(Client& client, RelayStep step, const std::string& usual)
{
    step.connection = client.number;
    step.transaction = client.transaction;
    if (step.verb != ".")
        step.recipient = client.asked;
    step.accepted = static_cast<int>(client.message.recipients.size());
    std::optional<RelayReaction> reaction;
    if (script_)
        reaction = script_(step);
    if (!reaction)
        reaction = RelayReaction{usual};
    client.last_reply = reaction->reply;
    if (!reaction->reply.empty())
        client.output += reaction->reply + "\r\n";
    if (reaction->stall) {
        (void)WriteAll(client.fd, client.output);
        client.output.clear();
        pollfd waited{client.fd, POLLRDHUP, 0};
        (void)poll(&waited, 1, 60'000);  // until the object ends or the client goes
        return false;
    }
    return !reaction->close;
}

bool ScriptedRelay::Command(Client& client, const std::string& line)
{
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        commands_.push_back(line);
    }
    const std::string verb = line.substr(0, line.find(' '));
    RelayedMessage& message = client.message;
    if (verb == "EHLO" || verb == "LHLO") {
        std::string reply = "250-relay.example.org";
        for (const std::string& ability : options_.abilities)
            reply += "\r\n250-" + ability;
        reply += "\r\n250 HELP";
        return Step(client, {verb, line}, (verb == "LHLO") == options_.lmtp ? reply : "500 what?");
    }
    if (verb == "MAIL") {
        message = {};
        message.sender = Bracketed(line);
        message.mail_arguments = line.substr(line.rfind('>') + 1);
        message.connection = client.number;
        client.asked = 0;
        const bool goes_on = Step(client, {verb, line}, "250 2.1.0 sender ok");
        client.has_sender = client.last_reply.starts_with('2');
        return goes_on;
    }
    if (verb == "RCPT") {
        const bool goes_on =
            Step(client, {verb, line},
                 client.has_sender ? "250 2.1.5 recipient ok" : "503 5.5.1 no sender");
        ++client.asked;
        if (client.last_reply.starts_with('2'))
            message.recipients.push_back(Bracketed(line));
        return goes_on;
    }
    if (verb == "DATA") {
        const bool goes_on =
            Step(client, {verb, line},
                 message.recipients.empty() ? "554 5.5.1 no valid recipients" : "354 go on");
        client.in_data = client.last_reply.starts_with("354");
        return goes_on;
    }
    if (verb == "QUIT") {
        (void)Step(client, {verb, line}, "221 2.0.0 bye");
        return false;
    }
    if (verb == "RSET") {
        ++client.transaction;
        message = {};
        client.has_sender = false;
    }
    return Step(client, {verb, line}, verb == "RSET" || verb == "HELO" ? "250 ok" : "500 what?");
}

bool ScriptedRelay::EndOfMessage(Client& client)
{
    client.in_data = false;
    std::size_t place = 0;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        place = messages_.size();
        messages_.push_back(client.message);
    }
    const auto replies = options_.lmtp ? static_cast<int>(client.message.recipients.size()) : 1;
    bool goes_on = true;
    bool taken = replies > 0;
    for (int i = 0; i < replies && goes_on; ++i) {
        RelayStep step{".", "."};
        step.recipient = i;
        goes_on = Step(client, step, "250 2.0.0 queued as " + std::to_string(place));
        taken = taken && client.last_reply.starts_with('2');
    }
    ++client.transaction;
    const bool written = WriteAll(client.fd, client.output);
    client.output.clear();
    const std::lock_guard<std::mutex> guard(mutex_);
    messages_[place].answered = written && taken;
    client.message = {};
    client.has_sender = false;
    return goes_on && written;
}

ScriptedRelay::Script When(std::function<bool(const RelayStep&)> condition, RelayReaction reaction)
{
    return [=](const RelayStep& step) {
        return condition(step) ? std::optional(reaction) : std::nullopt;
    };
}

ScriptedRelay::Script When(const std::string& verb, RelayReaction reaction)
{
    return When([=](const RelayStep& step) { return step.verb == verb; }, std::move(reaction));
}

std::vector<RelayedMessage> ScriptedRelay::Messages() const
{
    const std::lock_guard<std::mutex> guard(mutex_);
    return messages_;
}

std::vector<std::string> ScriptedRelay::Recipients() const
{
    std::vector<std::string> all;
    for (const RelayedMessage& message : Messages())
        if (message.answered)
            all.insert(all.end(), message.recipients.begin(), message.recipients.end());
    return all;
}

int ScriptedRelay::Connections() const
{
    const std::lock_guard<std::mutex> guard(mutex_);
    return connections_;
}

std::vector<std::string> ScriptedRelay::Commands() const
{
    const std::lock_guard<std::mutex> guard(mutex_);
    return commands_;
}

}  // namespace dl::testing
