// An SMTP or LMTP client: one connection over which messages are handed to a relay.
//
// Open connects and greets; Send hands one message over for some recipients and says what became of
// each; it may be called again while IsOpen() (RFC 5321; pipelining: RFC 2920; 8BITMIME: RFC 6152;
// SIZE: RFC 1870; SMTPUTF8: RFC 6531; LMTP: RFC 2033). There is no TLS: the relay is on this host
// or in a network that is trusted. A Session belongs to one thread; it logs nothing and trusts
// nothing that the server says. Texts of replies are the server's, bounded, and not cleaned.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/smtp/connection.h"
#include "platform/smtp/message_file.h"
#include "platform/smtp/reply_parser.h"

namespace dl::smtp
{

struct Relay {
    std::string host = "127.0.0.1";
    int port = 25;
    std::string socket;  // a Unix socket; host and port are not looked at then
    bool lmtp = false;
    std::string helo = "localhost";
    std::chrono::milliseconds connect_timeout{30'000};
    std::chrono::milliseconds answer_timeout{300'000};  // for each answer
    std::chrono::milliseconds data_timeout{600'000};    // the same at the message's end, and for
                                                        // each step of progress in sending it
};

enum class Outcome {
    kAccepted,  // the relay has taken the message for it
    kLater,     // refused for now, or the connection was lost before the message was whole
    kNextTime,  // too many recipients: to be tried in another transaction at once
    kRefused,   // refused for good
    kUnknown,   // the message was sent whole and no answer came: the relay may have it
};

struct RecipientResult {
    Outcome outcome = Outcome::kLater;
    int code = 0;          // 0: no reply of the relay stands behind it
    std::string enhanced;  // RFC 3463; may be empty
    std::string text;      // one line, at most 500 bytes

    // "550 5.1.1 no such user"; the text alone when there is no code.
    [[nodiscard]] std::string Line() const;
};

struct Transaction {
    std::string_view sender;  // "" and "<>" are the null reverse-path
    std::vector<std::string_view> recipients;
    const MessageFile* message = nullptr;
};

struct TransactionResult {
    std::vector<RecipientResult> recipients;  // one for each, in their order
    std::size_t accepted = 0;                 // RCPT commands that were
    bool data_sent = false;                   // the relay was asked for the message's place
    bool lost = false;                        // the connection cannot be used any more
};

class Session
{
 public:
    // A set `abort` flag ends whatever is going on as if the connection were lost.
    explicit Session(const std::atomic<bool>* abort = nullptr) : connection_(abort) {}

    // False, with one line in `problem`, when the relay cannot be reached or does not want mail
    // now.
    [[nodiscard]] bool Open(const Relay& relay, std::string* problem);
    [[nodiscard]] bool IsOpen() const { return connection_.IsOpen(); }
    // Transactions on this connection so far.
    [[nodiscard]] int Transactions() const { return transactions_; }
    [[nodiscard]] TransactionResult Send(const Transaction& transaction);
    // Says goodbye without waiting for the answer.
    void Quit();

 private:
    struct Abilities {
        bool pipelining = false;
        bool eight_bit = false;
        bool utf8 = false;
        bool size = false;
        std::int64_t max_size = 0;  // 0: no limit is known
    };
    struct Plan;

    // session.cpp
    bool Greet(std::string* problem);
    void ReadAbilities(const std::string& text);
    // The next reply, while output is written; false when none comes, and failure_ says why.
    bool NextReply(Reply* reply, std::chrono::milliseconds timeout);
    bool Refill();
    bool Command(const std::string& line, Reply* reply);
    void Fail(const std::string& why);

    // transaction.cpp
    void MakePlan(Plan* plan);
    void AppendCommand(const Plan& plan, std::size_t command, std::string* out) const;
    void SendEnvelope(Plan* plan);
    bool NoteReply(Plan* plan, std::size_t command, const Reply& reply);
    void FollowData(Plan* plan);
    void SendMessage(Plan* plan);
    void NoteEarlyReplies(Plan* plan, Reply reply);

    Relay relay_;
    Connection connection_;
    ReplyParser parser_;
    std::string input_;
    std::string output_;
    std::size_t written_ = 0;                 // of output_
    std::function<bool(std::string*)> more_;  // appends more output; false: that was all
    bool source_failed_ = false;              // set by more_: what is sent cannot be ended
    std::string failure_;
    Abilities abilities_;
    bool needs_reset_ = false;
    int transactions_ = 0;
};

}  // namespace dl::smtp
