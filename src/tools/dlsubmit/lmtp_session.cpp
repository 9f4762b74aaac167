#include "tools/dlsubmit/lmtp_session.h"

#include <cstdio>

#include "platform/address/address.h"
#include "tools/dlsubmit/lmtp_command.h"

namespace dl
{
namespace
{

// RFC 5321 asks for 512 bytes, RFC 6531 for more: an address may have 1000 here.
constexpr std::size_t kMaxLine = 4096;
constexpr std::size_t kMaxOutput = 262'144;
constexpr std::size_t kTextPiece = 65'536;
constexpr int kMaxWrongCommands = 50;
constexpr int kMaxNotes = 20;
constexpr std::size_t kNoteBytes = 200;
// A client that does not stop sending a text that is refused is not worth waiting for.
constexpr std::uint64_t kMaxRefusedTexts = 8;

constexpr char kSyntax[] = "501 5.5.4 Wrong syntax of the argument";
constexpr char kNoParameter[] = "555 5.5.4 This parameter is not known here";
constexpr char kTooManyRecipients[] = "452 4.5.3 Too many recipients";

const char* Refusal(LmtpOutcome outcome)
{
    switch (outcome) {
        case LmtpOutcome::kTooBig:
            return "552 5.3.4 The message is too big";
        case LmtpOutcome::kNoSpace:
            return "452 4.3.1 The disk is full, try again later";
        default:
            return "451 4.3.0 The queue cannot take the message, try again later";
    }
}

bool IsUsable(const std::string& address)
{
    RT parsed;
    return RecipParse(address, &parsed, 1) == 1;
}

}  // namespace

void AddressList::Add(std::string_view address)
{
    text_ += address;
    ends_.push_back(static_cast<std::uint32_t>(text_.size()));
}

void AddressList::Clear()
{
    text_ = std::string();
    ends_ = std::vector<std::uint32_t>();
}

std::string_view AddressList::At(std::size_t index) const
{
    const std::size_t begin = index == 0 ? 0 : ends_[index - 1];
    return std::string_view(text_).substr(begin, ends_[index] - begin);
}

LmtpSession::LmtpSession(const LmtpLimits* limits, std::size_t* recipient_bytes)
    : limits_(limits), recipient_bytes_(recipient_bytes)
{
    Answer(("220 " + limits_->host + " LMTP dlsubmit").c_str());
}

LmtpSession::~LmtpSession()
{
    Reset();
}

void LmtpSession::Receive(std::string_view bytes)
{
    if (state_ == State::kClosed)
        return;
    if (begin_ > 0) {
        in_.erase(0, begin_);
        begin_ = 0;
    }
    in_ += bytes;
}

LmtpSession::Event LmtpSession::Next()
{
    std::string_view line;
    for (;;) {
        if (has_note_) {
            has_note_ = false;
            return Event::kRefused;
        }
        if (state_ == State::kClosed)
            return Event::kClose;
        if (state_ == State::kBegins || state_ == State::kEnds || output_.size() > kMaxOutput)
            return Event::kMore;
        if (state_ == State::kText) {
            const Event event = ReadText();
            // The text may have been answered, and commands may follow.
            if (event != Event::kMore || Buffered() == 0)
                return event;
            continue;
        }
        if (!TakeLine(&line)) {
            if (has_note_ || state_ == State::kClosed)
                continue;
            return Event::kMore;
        }
        HandleLine(line);
        if (state_ == State::kBegins)
            return Event::kBegin;
    }
}

// The next line without its line end; false when it has not come whole.
bool LmtpSession::TakeLine(std::string_view* line)
{
    for (;;) {
        const std::size_t end = in_.find('\n', begin_ + searched_);
        if (end == std::string::npos) {
            searched_ = Buffered();
            if (Buffered() > kMaxLine || long_line_)
                DropLongLine();
            return false;
        }
        *line = std::string_view(in_).substr(begin_, end - begin_);
        begin_ = end + 1;
        searched_ = 0;
        if (!long_line_ && line->size() < kMaxLine)
            return true;
        long_line_ = false;
        line_ = line->substr(0, kNoteBytes);
        WrongCommand("500 5.5.2 The line is too long");
        if (has_note_ || state_ == State::kClosed)
            return false;
    }
}

void LmtpSession::DropLongLine()
{
    long_line_ = true;
    begin_ = in_.size();
    searched_ = 0;
}

LmtpSession::Event LmtpSession::ReadText()
{
    text_.clear();
    const std::string_view piece = std::string_view(in_).substr(begin_, kTextPiece);
    begin_ += decoder_.Decode(piece, &text_);
    text_bytes_ += text_.size();
    if (refused_) {
        if (decoder_.Ended())
            AnswerText(refusal_, 0);
        else if (text_bytes_ / kMaxRefusedTexts > limits_->max_message_bytes)
            End("421 4.7.0 The message does not end");
        return state_ == State::kClosed ? Event::kClose : Event::kMore;
    }
    if (text_bytes_ > limits_->max_message_bytes) {
        Refuse(LmtpOutcome::kTooBig);
        return Event::kDiscard;
    }
    if (!text_.empty())
        return Event::kText;
    if (decoder_.Ended()) {
        state_ = State::kEnds;
        return Event::kEnd;
    }
    return Event::kMore;
}

void LmtpSession::HandleLine(std::string_view line)
{
    line_ = line.substr(0, kNoteBytes);
    if (line.empty() || line.back() != '\r')
        return WrongCommand("500 5.5.2 A line ends in CRLF");
    line.remove_suffix(1);
    if (line.find_first_of(std::string_view("\r\0", 2)) != std::string_view::npos)
        return WrongCommand("500 5.5.2 No CR and no NUL in a line");
    const LmtpCommand command = ParseLmtpCommand(line);
    switch (command.verb) {
        case LmtpCommand::Verb::kLhlo:
            return Lhlo(command.argument);
        case LmtpCommand::Verb::kHello:
            return WrongCommand("500 5.5.1 This is LMTP: say LHLO");
        case LmtpCommand::Verb::kMail:
            return Mail(command.argument);
        case LmtpCommand::Verb::kRcpt:
            return Rcpt(command.argument);
        case LmtpCommand::Verb::kData:
            return Data(command.argument);
        case LmtpCommand::Verb::kRset:
            Reset();
            return Answer("250 2.0.0 Ok");
        case LmtpCommand::Verb::kNoop:
            return Answer("250 2.0.0 Ok");
        case LmtpCommand::Verb::kVrfy:
            return Vrfy(command.argument);
        case LmtpCommand::Verb::kHelp:
            return Answer("214 2.0.0 LHLO MAIL RCPT DATA RSET NOOP VRFY HELP QUIT");
        case LmtpCommand::Verb::kQuit:
            return End("221 2.0.0 Bye");
        case LmtpCommand::Verb::kNotOffered:
            return WrongCommand("502 5.5.1 This command is not offered");
        case LmtpCommand::Verb::kUnknown:
            return WrongCommand("500 5.5.1 This command is not known here");
    }
}

void LmtpSession::Lhlo(std::string_view name)
{
    if (name.empty())
        return WrongCommand("501 5.5.4 LHLO needs the name of the client");
    Reset();
    greeted_ = true;
    output_ += "250-" + limits_->host + "\r\n";
    output_ += "250-PIPELINING\r\n250-ENHANCEDSTATUSCODES\r\n250-8BITMIME\r\n250-SMTPUTF8\r\n";
    output_ += "250 SIZE " + std::to_string(limits_->max_message_bytes) + "\r\n";
}

void LmtpSession::Mail(std::string_view argument)
{
    if (!greeted_)
        return WrongCommand("503 5.5.1 Say LHLO first");
    if (has_sender_)
        return WrongCommand("503 5.5.1 There is a sender already");
    LmtpPath path = ParseLmtpPath(argument, "FROM:");
    if (!path.well_formed)
        return WrongCommand(kSyntax);
    const MailParameters parameters = ParseMailParameters(path.parameters);
    if (parameters.state == MailParameters::State::kUnknown)
        return RefuseCommand(kNoParameter);
    if (parameters.state == MailParameters::State::kBadValue)
        return RefuseCommand("501 5.5.4 Wrong value of a parameter");
    if (!path.address.empty() && !IsUsable(path.address))
        return RefuseCommand("501 5.1.7 Not a usable address");
    if (parameters.size > limits_->max_message_bytes)
        return RefuseCommand(Refusal(LmtpOutcome::kTooBig));
    if (!limits_->HaveRoomFor(parameters.size))
        return RefuseCommand(Refusal(LmtpOutcome::kNoSpace));
    has_sender_ = true;
    sender_ = std::move(path.address);
    Answer("250 2.1.0 Ok");
}

void LmtpSession::Rcpt(std::string_view argument)
{
    if (!has_sender_)
        return WrongCommand("503 5.5.1 Say MAIL first");
    const LmtpPath path = ParseLmtpPath(argument, "TO:");
    if (!path.well_formed)
        return WrongCommand(kSyntax);
    if (!path.parameters.empty())
        return RefuseCommand(kNoParameter);
    if (!IsUsable(path.address))
        return RefuseCommand("501 5.1.3 Not a usable address");
    if (recipients_.Size() >= limits_->max_recipients ||
        *recipient_bytes_ + path.address.size() > limits_->max_recipient_bytes)
        return RefuseCommand(kTooManyRecipients);
    recipients_.Add(path.address);
    *recipient_bytes_ += recipients_.Bytes() - counted_bytes_;
    counted_bytes_ = recipients_.Bytes();
    Answer("250 2.1.5 Ok");
}

void LmtpSession::Data(std::string_view argument)
{
    if (Buffered() > 0)
        return End("421 4.5.0 Nothing may follow DATA before its answer");
    if (!argument.empty())
        return WrongCommand(kSyntax);
    if (!has_sender_)
        return WrongCommand("503 5.5.1 Say MAIL first");
    if (recipients_.Size() == 0)
        return WrongCommand("503 5.5.1 There is no recipient");
    state_ = State::kBegins;
}

void LmtpSession::Vrfy(std::string_view argument)
{
    if (argument.empty())
        return WrongCommand(kSyntax);
    Answer("252 2.5.0 Whether it is a list is seen later");
}

void LmtpSession::Begin()
{
    if (state_ != State::kBegins)
        return;
    state_ = State::kText;
    decoder_ = TextDecoder();
    text_bytes_ = 0;
    refused_ = false;
    Answer("354 The text, then a line with a dot");
}

void LmtpSession::Refuse(LmtpOutcome outcome)
{
    refused_ = true;
    refusal_ = outcome;
    if (state_ != State::kBegins)
        return;
    Answer(Refusal(outcome));
    state_ = State::kCommands;
    Reset();
}

void LmtpSession::Finish(LmtpOutcome outcome, unsigned long id)
{
    if (state_ == State::kEnds)
        AnswerText(outcome, id);
}

// One reply for each recipient that was accepted (RFC 2033, 4.2).
void LmtpSession::AnswerText(LmtpOutcome outcome, unsigned long id)
{
    char stored[64];
    std::snprintf(stored, sizeof stored, "250 2.0.0 Stored as %08lX", id);
    const char* reply = outcome == LmtpOutcome::kStored ? stored : Refusal(outcome);
    for (std::size_t i = 0; i < recipients_.Size(); ++i)
        Answer(reply);
    if (outcome == LmtpOutcome::kStored)
        wrong_commands_ = 0;
    state_ = State::kCommands;
    Reset();
}

void LmtpSession::End(std::string_view reply)
{
    if (state_ == State::kClosed)
        return;
    Answer(std::string(reply).c_str());
    Reset();
    state_ = State::kClosed;
    in_.clear();
    begin_ = 0;
}

void LmtpSession::Answer(const char* reply)
{
    output_ += reply;
    output_ += "\r\n";
}

void LmtpSession::RefuseCommand(const char* reply)
{
    Answer(reply);
    if (++notes_ > kMaxNotes)
        return;
    note_ = std::string(reply) + " (" + std::string(line_.substr(0, line_.find('\0'))) + ")";
    has_note_ = true;
}

// What no client of good will sends often.
void LmtpSession::WrongCommand(const char* reply)
{
    RefuseCommand(reply);
    if (++wrong_commands_ >= kMaxWrongCommands)
        End("421 4.7.0 Too many wrong commands");
}

void LmtpSession::Reset()
{
    has_sender_ = false;
    sender_.clear();
    recipients_.Clear();
    *recipient_bytes_ -= counted_bytes_;
    counted_bytes_ = 0;
}

}  // namespace dl
