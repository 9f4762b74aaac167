#include "tools/dlsubmit/lmtp_server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/log/format.h"
#include "platform/log/log.h"
#include "platform/queue/queue.h"

namespace dl
{
namespace
{

using std::chrono::milliseconds;
using Steady = std::chrono::steady_clock;

constexpr char kModule[] = "DL Intake";
constexpr milliseconds kLinger{1'000};    // for a client that is still sending after our last word
constexpr milliseconds kAtTheEnd{2'000};  // for all of them after Stop
constexpr milliseconds kPause{1'000};
constexpr milliseconds kNoHurry{3'600'000};
// Clients above the limit who are being told so; more wait in the sockets' queues.
constexpr std::size_t kExtraConnections = 50;
constexpr int kAcceptsPerTurn = 16;
// What clients had sent when Stop came may fill some turns; who goes on sending is not waited for.
constexpr int kLastTurns = 32;

}  // namespace

LmtpServer::LmtpServer(LmtpSettings settings, std::vector<std::unique_ptr<Listener>> listeners)
    : settings_(std::move(settings)),
      listeners_(std::move(listeners)),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

LmtpServer::~LmtpServer()
{
    connections_.clear();
    close(wake_);
}

void LmtpServer::Stop()
{
    stop_.store(true);
    const std::uint64_t one = 1;
    const int before = errno;
    if (write(wake_, &one, sizeof one) < 0)
        errno = before;  // it is full: the loop is awake
}

void LmtpServer::Run()
{
    while (!stop_.load())
        Turn(kNoHurry);
    Finish();
}

// One round over everything that is ready.
void LmtpServer::Turn(milliseconds longest)
{
    std::vector<pollfd> polled;
    const Time before = Steady::now();
    const bool accepts = !stop_.load() && before >= accept_again_ &&
                         connections_.size() < settings_.max_connections + kExtraConnections;
    polled.push_back({wake_, static_cast<short>(stop_.load() ? 0 : POLLIN), 0});
    for (const auto& listener : listeners_)
        polled.push_back({listener->Socket(), static_cast<short>(accepts ? POLLIN : 0), 0});
    const std::size_t first = polled.size();
    for (const auto& connection : connections_) {
        const int events =
            (connection->WantsToRead() ? POLLIN : 0) | (connection->WantsToWrite() ? POLLOUT : 0);
        polled.push_back({connection->Socket(), static_cast<short>(events), 0});
    }
    FlushLog();
    if (poll(polled.data(), polled.size(), WaitMilliseconds(before, longest)) < 0)
        return;  // a signal; or no memory, and then the next try
    const Time now = Steady::now();
    const std::size_t known = connections_.size();
    for (std::size_t i = 0; i < known; ++i) {
        const short ready = polled[first + i].revents;
        if (ready & (POLLIN | POLLHUP | POLLERR))
            connections_[i]->Read(now);
        if (ready & (POLLOUT | POLLERR))
            connections_[i]->Write(now);
    }
    PublishReady();
    for (const auto& connection : connections_)
        if (connection->WantsToWrite() && !connection->Done())
            connection->Write(now);
    for (std::size_t i = 0; i < listeners_.size(); ++i)
        for (int n = 0; n < kAcceptsPerTurn && (polled[1 + i].revents & POLLIN); ++n)
            if (!Accept(*listeners_[i], now))
                break;
    Expire(now);
}

int LmtpServer::WaitMilliseconds(Time now, milliseconds longest) const
{
    Time until = now + longest;
    if (accept_again_ > now)
        until = std::min(until, accept_again_);
    for (const auto& connection : connections_)
        until = std::min(until, Deadline(*connection));
    const auto wait = std::chrono::ceil<milliseconds>(until - now);
    return static_cast<int>(std::clamp(wait, milliseconds(0), kNoHurry).count());
}

LmtpServer::Time LmtpServer::Deadline(const LmtpConnection& connection) const
{
    const milliseconds patience = connection.Ending() ? kLinger : settings_.idle_time_out;
    return connection.LastActive() + patience;
}

bool LmtpServer::Accept(const Listener& listener, Time now)
{
    const int socket = accept4(listener.Socket(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket < 0) {
        const int error = errno;
        if (error != EMFILE && error != ENFILE && error != ENOBUFS && error != ENOMEM)
            return false;  // none is there, or the client has gone
        const std::string cause = std::generic_category().message(error);
        LogMessage(1, kModule, ("No connection can be accepted: " + cause).c_str());
        accept_again_ = now + kPause;
        return false;
    }
    const int on = 1;
    (void)setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // a local one has none
    const auto serving = std::count_if(connections_.begin(), connections_.end(),
                                       [](const auto& other) { return !other->Ending(); });
    connections_.push_back(std::make_unique<LmtpConnection>(
        socket, PeerName(socket), &settings_.limits, &recipient_bytes_, &settings_.channel, now));
    LmtpConnection& connection = *connections_.back();
    if (static_cast<std::size_t>(serving) >= settings_.max_connections)
        connection.End("421 4.3.2 Too many connections, try again later", now);
    connection.Write(now);
    return true;
}

// All messages whose end has come, in one wait for the disk.
void LmtpServer::PublishReady()
{
    std::vector<LmtpConnection*> ready;
    std::vector<MQContext*> entries;
    for (const auto& connection : connections_) {
        if (!connection->Ready())
            continue;
        ready.push_back(connection.get());
        entries.push_back(connection->Release());
    }
    if (ready.empty())
        return;
    const std::vector<bool> stored = CloseMQEntries(entries);
    for (std::size_t i = 0; i < ready.size(); ++i)
        ready[i]->Finish(stored[i]);
    FlushLog();  // before the clients are told
}

void LmtpServer::Expire(Time now)
{
    for (auto& connection : connections_) {
        if (!connection->Done() && Deadline(*connection) > now)
            continue;
        if (connection->Done() || connection->Ending()) {
            connection.reset();
            continue;
        }
        connection->End("421 4.4.2 Nothing has come for too long", now);
        connection->Write(now);
    }
    connections_.erase(std::remove(connections_.begin(), connections_.end(), nullptr),
                       connections_.end());
}

void LmtpServer::Finish()
{
    for (int i = 0; i < kLastTurns; ++i)
        Turn(milliseconds(0));
    const Time now = Steady::now();
    for (const auto& connection : connections_) {
        connection->End("421 4.3.2 The service is being stopped", now);
        connection->Write(now);
    }
    while (!connections_.empty() && Steady::now() < now + kAtTheEnd)
        Turn(kPause);
    connections_.clear();
    listeners_.clear();
}

}  // namespace dl
