// One LMTP session (RFC 2033), as a state machine: bytes in, replies and events out.
//
// The owner gives bytes with Receive, calls Next until it says kMore, acts on each event, and sends
// what is in Output. The session knows no sockets, files, queue or clock; it never waits, never
// logs and takes any bytes. Memory is bounded: what is received and not yet used (the owner reads
// no more while Buffered() is large), what is to be sent (Next says kMore until the owner has sent
// some of it), and the recipients. Pipelining (RFC 2920) needs nothing of its own, but that bytes
// which follow DATA before its answer end the session: taken for text or for commands, they would
// be a way to slip in a message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/dlsubmit/lmtp_text.h"

namespace dl
{

struct LmtpCommand;

// Addresses one behind the other in one text: a transaction may have 100,000.
class AddressList
{
 public:
    void Add(std::string_view address);
    void Clear();
    [[nodiscard]] std::size_t Size() const { return ends_.size(); }
    [[nodiscard]] std::size_t Bytes() const
    {
        return text_.size() + ends_.size() * sizeof ends_[0];
    }
    [[nodiscard]] std::string_view At(std::size_t index) const;

 private:
    std::string text_;
    std::vector<std::uint32_t> ends_;
};

struct LmtpLimits {
    std::string host;  // our name in greeting and LHLO
    std::uint64_t max_message_bytes = 50 << 20;
    std::size_t max_recipients = 100'000;        // of a transaction
    std::size_t max_recipient_bytes = 32 << 20;  // of all sessions together
    // Whether the queue has room for a message of so many bytes; empty: it always has.
    std::function<bool(std::uint64_t)> has_room;

    [[nodiscard]] bool HaveRoomFor(std::uint64_t bytes) const
    {
        return !has_room || has_room(bytes);
    }
};

// What became of a transaction's text; it is the answer for each of its recipients.
enum class LmtpOutcome { kStored, kTooBig, kNoSpace, kFailed };

class LmtpSession
{
 public:
    enum class Event {
        kMore,   // nothing to do before more bytes come, output is sent, or the owner has answered
        kBegin,  // a text is about to come: the owner answers with Begin or Refuse
        kText,   // Text() is the next piece of it, until the next call of Next
        kDiscard,  // the text is too big: what came of it is to be thrown away; no kEnd follows
        kEnd,      // the text is complete: the owner answers with Finish
        kRefused,  // a command was refused: Note() says which and how, for the log
        kClose,    // the session is over: send the output, then close
    };

    // Both live longer than the session. `recipient_bytes` is what all sessions use together.
    LmtpSession(const LmtpLimits* limits, std::size_t* recipient_bytes);
    ~LmtpSession();
    LmtpSession(const LmtpSession&) = delete;
    LmtpSession& operator=(const LmtpSession&) = delete;

    void Receive(std::string_view bytes);
    [[nodiscard]] Event Next();
    void Begin();
    // The text is not wanted, or not any more: then it is read to its end, and no kEnd follows.
    void Refuse(LmtpOutcome outcome);
    // The answer to kEnd; `id` is told to the client when it is kStored.
    void Finish(LmtpOutcome outcome, unsigned long id);
    // Ends the session with `reply` ("421 ..."), whatever it is doing.
    void End(std::string_view reply);

    [[nodiscard]] const std::string& Sender() const { return sender_; }  // empty: null reverse-path
    [[nodiscard]] const AddressList& Recipients() const { return recipients_; }
    [[nodiscard]] std::uint64_t TextBytes() const { return text_bytes_; }
    [[nodiscard]] const std::string& Text() const { return text_; }
    [[nodiscard]] const std::string& Note() const { return note_; }
    // In a text whose end was not seen.
    [[nodiscard]] bool InText() const { return state_ == State::kText; }
    [[nodiscard]] std::size_t Buffered() const { return in_.size() - begin_; }
    std::string& Output() { return output_; }  // the owner takes away what it has sent
    [[nodiscard]] bool HasOutput() const { return !output_.empty(); }

 private:
    enum class State { kCommands, kBegins, kText, kEnds, kClosed };

    [[nodiscard]] bool TakeLine(std::string_view* line);
    void DropLongLine();
    Event ReadText();
    void HandleLine(std::string_view line);
    void Lhlo(std::string_view name);
    void Mail(std::string_view argument);
    void Rcpt(std::string_view argument);
    void Data(std::string_view argument);
    void Vrfy(std::string_view argument);
    void Answer(const char* reply);
    void RefuseCommand(const char* reply);
    void WrongCommand(const char* reply);
    void AnswerText(LmtpOutcome outcome, unsigned long id);
    void Reset();

    const LmtpLimits* limits_;
    std::size_t* recipient_bytes_;
    State state_ = State::kCommands;
    std::string in_;
    std::size_t begin_ = 0;     // of what is not used yet
    std::size_t searched_ = 0;  // how far of that was searched for a line end
    bool long_line_ = false;    // the rest of a line that is too long is coming
    std::string_view line_;     // the command that is being handled
    std::string output_;

    bool greeted_ = false;
    bool has_sender_ = false;
    std::string sender_;
    AddressList recipients_;
    std::size_t counted_bytes_ = 0;  // of recipients_, in *recipient_bytes_

    TextDecoder decoder_;
    std::string text_;
    std::uint64_t text_bytes_ = 0;
    bool refused_ = false;  // the text is read and thrown away
    LmtpOutcome refusal_ = LmtpOutcome::kFailed;

    int wrong_commands_ = 0;  // since the last message
    int notes_ = 0;
    std::string note_;
    bool has_note_ = false;
};

}  // namespace dl
