#include "tools/dlsubmit/lmtp_connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <utility>

#include "platform/log/log.h"
#include "platform/metrics/metrics.h"

namespace dl
{
namespace
{

constexpr std::size_t kReadBytes = 65'536;
constexpr int kReadsPerTurn = 4;  // the others are waiting
constexpr std::size_t kMaxBuffered = 65'536;
constexpr std::uint64_t kRoomStep = 1 << 20;  // each so many bytes the queue's room is looked at

}  // namespace

LmtpConnection::LmtpConnection(int socket, std::string peer, const LmtpLimits* limits,
                               std::size_t* recipient_bytes, const std::string* channel, Time now)
    : socket_(socket),
      peer_(std::move(peer)),
      limits_(limits),
      channel_(channel),
      session_(limits, recipient_bytes),
      last_active_(now)
{
}

LmtpConnection::~LmtpConnection()
{
    close(socket_);
}

bool LmtpConnection::WantsToRead() const
{
    return !eof_ && !ready_ && session_.Buffered() < kMaxBuffered;
}

void LmtpConnection::Read(Time now)
{
    static thread_local char block[kReadBytes];
    for (int i = 0; i < kReadsPerTurn && WantsToRead() && !done_; ++i) {
        const ssize_t got = recv(socket_, block, sizeof block, 0);
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
            break;
        if (got < 0)
            return Lost();
        eof_ = got == 0;
        if (ending_)
            continue;  // nobody listens any more
        last_active_ = now;
        session_.Receive({block, static_cast<std::size_t>(got)});
        Advance();
    }
    CheckEnd();
}

void LmtpConnection::Write(Time now)
{
    std::string& output = session_.Output();
    std::size_t sent = 0;
    while (sent < output.size()) {
        const ssize_t now_sent =
            send(socket_, output.data() + sent, output.size() - sent, MSG_NOSIGNAL);
        if (now_sent < 0 && errno == EINTR)
            continue;
        if (now_sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        if (now_sent < 0)
            return Lost();
        sent += static_cast<std::size_t>(now_sent);
        if (!ending_)
            last_active_ = now;
    }
    output.erase(0, sent);
    // Commands may wait for the room that the replies took.
    if (sent > 0 && !ending_ && !ready_)
        Advance();
    CheckEnd();
}

void LmtpConnection::End(const char* reply, Time now)
{
    if (ending_)
        return;
    session_.End(reply);
    last_active_ = now;
    Advance();
}

void LmtpConnection::Lost()
{
    if (!ending_ && session_.InText())
        Log(5, "%s went away in the middle of a message", peer_.c_str());
    done_ = !ready_;  // a complete message is stored all the same
    eof_ = true;
    session_.Output().clear();
}

void LmtpConnection::Advance()
{
    while (Act(session_.Next())) {
    }
}

bool LmtpConnection::Act(LmtpSession::Event event)
{
    switch (event) {
        case LmtpSession::Event::kMore:
            return false;
        case LmtpSession::Event::kBegin:
            BeginMessage();
            return true;
        case LmtpSession::Event::kText:
            WriteText();
            return true;
        case LmtpSession::Event::kDiscard:
            Log(5, "%s sent a message that is too big", peer_.c_str());
            Count(Metric::kIntakeRefused);
            entry_.reset();
            return true;
        case LmtpSession::Event::kEnd:
            EndMessage();
            return true;
        case LmtpSession::Event::kRefused:
            Log(5, "%s was answered %s", peer_.c_str(), session_.Note().c_str());
            Count(session_.Note().starts_with('4') ? Metric::kIntakeRefusedForNow
                                                   : Metric::kIntakeRefused);
            return true;
        case LmtpSession::Event::kClose:
            entry_.reset();
            ending_ = true;
            return false;
    }
    return false;
}

void LmtpConnection::BeginMessage()
{
    entry_.emplace();
    const LmtpOutcome outcome = entry_->Open();
    if (outcome != LmtpOutcome::kStored)
        return Drop(outcome);
    id_ = entry_->Id();
    message_id_ = {};
    room_for_ = kRoomStep;
    session_.Begin();
}

// Others may fill the disk meanwhile, and not every client says at MAIL how much it sends.
void LmtpConnection::WriteText()
{
    message_id_.Read(session_.Text());
    if (session_.TextBytes() > room_for_) {
        if (!limits_->HaveRoomFor(kRoomStep))
            return Drop(LmtpOutcome::kNoSpace);
        room_for_ += kRoomStep;
    }
    if (const LmtpOutcome outcome = entry_->Write(session_.Text()); outcome != LmtpOutcome::kStored)
        Drop(outcome);
}

void LmtpConnection::Drop(LmtpOutcome outcome)
{
    entry_.reset();
    Count(Metric::kIntakeRefusedForNow);
    session_.Refuse(outcome);
}

void LmtpConnection::EndMessage()
{
    const LmtpOutcome outcome =
        entry_->Address(session_.Sender(), session_.Recipients(), *channel_);
    ready_ = outcome == LmtpOutcome::kStored;
    if (ready_)
        return;
    entry_.reset();
    Count(Metric::kIntakeRefusedForNow);
    session_.Finish(outcome, 0);
}

void LmtpConnection::Finish(bool stored)
{
    entry_.reset();
    ready_ = false;
    if (stored) {
        Log(3,
            "Message %08lX from <%s> for %zu recipients, %llu bytes, taken in from %s, "
            "Message-ID %s",
            id_, session_.Sender().c_str(), session_.Recipients().Size(),
            static_cast<unsigned long long>(session_.TextBytes()), peer_.c_str(),
            message_id_.Text().c_str());
        Count(Metric::kIntakeAccepted);
        Count(Metric::kIntakeRecipients, session_.Recipients().Size());
    } else {
        Count(Metric::kIntakeRefusedForNow);
    }
    session_.Finish(stored ? LmtpOutcome::kStored : LmtpOutcome::kFailed, id_);
    Advance();
}

// A client that says no more gets its answers; then, or when its session is over, our side closes.
void LmtpConnection::CheckEnd()
{
    if (done_ || ready_)
        return;
    if (eof_ && !ending_ && !WantsToWrite())
        return Lost();
    if (!ending_ || WantsToWrite())
        return;
    if (!shut_)
        (void)shutdown(socket_, SHUT_WR);  // one that has gone is seen at the next read
    shut_ = true;
    done_ = eof_;
}

void LmtpConnection::Log(int level, const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    (void)LogFormatted(level, "DL Intake", 4096, format, args);
    va_end(args);
}

}  // namespace dl
