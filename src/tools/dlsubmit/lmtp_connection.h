// One client of the intake: its socket, its session, and the entry that its message goes into.
//
// Never waits. The server polls the socket for what Wants... say, calls Read and Write, and
// collects the connections whose message is complete (Ready) so that many share one wait for the
// disk; each is told by Finish what became of it. A connection that has ended sends what is left to
// be said and reads on for a moment, so that a client which is still sending gets to see it.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "platform/address/message_id.h"
#include "tools/dlsubmit/intake_entry.h"
#include "tools/dlsubmit/lmtp_session.h"

namespace dl
{

class LmtpConnection
{
 public:
    using Time = std::chrono::steady_clock::time_point;

    // Takes the socket. `limits`, `recipient_bytes` and `channel` outlive the connection.
    LmtpConnection(int socket, std::string peer, const LmtpLimits* limits,
                   std::size_t* recipient_bytes, const std::string* channel, Time now);
    ~LmtpConnection();
    LmtpConnection(const LmtpConnection&) = delete;
    LmtpConnection& operator=(const LmtpConnection&) = delete;

    [[nodiscard]] int Socket() const { return socket_; }
    [[nodiscard]] bool WantsToRead() const;
    [[nodiscard]] bool WantsToWrite() const { return session_.HasOutput(); }
    // Reads what has come, at most some pieces, and goes on with the session.
    void Read(Time now);
    void Write(Time now);
    void End(const char* reply, Time now);

    // A complete message waits for CloseMQEntries.
    [[nodiscard]] bool Ready() const { return ready_; }
    [[nodiscard]] MQContext* Release() { return entry_->Release(); }
    void Finish(bool stored);

    // Nothing is left to do: to be destroyed.
    [[nodiscard]] bool Done() const { return done_; }
    [[nodiscard]] bool Ending() const { return ending_; }
    // Since when nothing went in or out.
    [[nodiscard]] Time LastActive() const { return last_active_; }

 private:
    void Advance();
    bool Act(LmtpSession::Event event);
    void Lost();
    void BeginMessage();
    void WriteText();
    void EndMessage();
    void Drop(LmtpOutcome outcome);
    void CheckEnd();
    void Log(int level, const char* format, ...) const __attribute__((format(printf, 3, 4)));

    const int socket_;
    const std::string peer_;
    const LmtpLimits* limits_;
    const std::string* channel_;
    LmtpSession session_;
    std::optional<IntakeEntry> entry_;
    MessageIdFinder message_id_;
    unsigned long id_ = 0;
    std::uint64_t room_for_ = 0;  // how much of the text the queue was seen to have room for
    bool ready_ = false;
    bool eof_ = false;
    bool ending_ = false;  // the session is over
    bool shut_ = false;    // our side of the socket is closed
    bool done_ = false;
    Time last_active_;
};

}  // namespace dl
