// The intake by LMTP: one thread, one loop over all connections.
//
// Each turn of the loop reads what has come on all of them and then closes all messages that are
// complete with one call, so that the more clients there are, the more messages share a wait for
// the disk. The queue must be open (MQInit). Logs under "DL Intake": level 3 one line for each
// message, level 5 what clients did wrong. Run ends after Stop, in order: messages whose end has
// come are stored and answered, every other client is told 421. Stop may be called from another
// thread or a signal handler; everything else belongs to one thread.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tools/dlsubmit/lmtp_connection.h"
#include "tools/dlsubmit/lmtp_listener.h"
#include "tools/dlsubmit/lmtp_session.h"

namespace dl
{

struct LmtpSettings {
    LmtpLimits limits;
    std::size_t max_connections = 100;
    std::chrono::milliseconds idle_time_out{300'000};
    std::string channel = kInputChannel;
};

class LmtpServer
{
 public:
    LmtpServer(LmtpSettings settings, std::vector<std::unique_ptr<Listener>> listeners);
    ~LmtpServer();
    LmtpServer(const LmtpServer&) = delete;
    LmtpServer& operator=(const LmtpServer&) = delete;

    void Run();
    void Stop();

 private:
    using Time = LmtpConnection::Time;

    void Turn(std::chrono::milliseconds longest);
    [[nodiscard]] int WaitMilliseconds(Time now, std::chrono::milliseconds longest) const;
    [[nodiscard]] Time Deadline(const LmtpConnection& connection) const;
    bool Accept(const Listener& listener, Time now);
    void PublishReady();
    void Expire(Time now);
    void Finish();

    const LmtpSettings settings_;
    std::vector<std::unique_ptr<Listener>> listeners_;
    std::vector<std::unique_ptr<LmtpConnection>> connections_;
    std::size_t recipient_bytes_ = 0;
    Time accept_again_{};  // not before, after no descriptor was free
    int wake_ = -1;
    std::atomic<bool> stop_{false};
};

}  // namespace dl
