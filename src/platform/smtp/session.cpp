#include "platform/smtp/session.h"

#include <algorithm>
#include <charconv>

#include "platform/address/address.h"
#include "platform/smtp/result_private.h"

namespace dl::smtp
{
namespace
{

constexpr std::size_t kLowOutput = 32'768;
constexpr std::size_t kMaxResultText = 500;

const char* Words(Connection::Event event)
{
    switch (event) {
        case Connection::Event::kClosed:
            return "the relay closed the connection";
        case Connection::Event::kTimeout:
            return "the relay did not answer in time";
        case Connection::Event::kAborted:
        case Connection::Event::kProgress:
            break;
    }
    return "the program is ending";
}

}  // namespace

std::string LineOf(const std::string& text)
{
    std::string line = text.substr(0, kMaxResultText);
    for (char& c : line)
        if (c == '\n')
            c = ' ';
    return line;
}

std::string RecipientResult::Line() const
{
    std::string line = code > 0 ? std::to_string(code) : std::string();
    for (const std::string* part : {&enhanced, &text}) {
        if (!line.empty() && !part->empty())
            line += ' ';
        line += *part;
    }
    return line;
}

RecipientResult ResultOf(Outcome outcome, const Reply& reply)
{
    return {outcome, reply.code, reply.enhanced, LineOf(reply.text)};
}

bool Session::Open(const Relay& relay, std::string* problem)
{
    relay_ = relay;
    more_ = nullptr;
    needs_reset_ = false;
    transactions_ = 0;
    const auto greets = [&] { return Greet(problem); };
    const bool open =
        relay.socket.empty()
            ? connection_.OpenTcp(relay.host, relay.port, relay.connect_timeout, greets, problem)
            : connection_.OpenUnix(relay.socket, relay.connect_timeout, problem) && greets();
    if (!open)
        connection_.Close();
    return open;
}

bool Session::Greet(std::string* problem)
{
    parser_ = ReplyParser();
    output_.clear();
    written_ = 0;
    abilities_ = {};
    failure_.clear();
    Reply reply;
    const auto refused = [&] {
        *problem =
            failure_.empty() ? "it answered " + ResultOf(Outcome::kLater, reply).Line() : failure_;
        return false;
    };
    if (!NextReply(&reply, relay_.answer_timeout) || !reply.Is(2))
        return refused();
    if (!Command((relay_.lmtp ? "LHLO " : "EHLO ") + relay_.helo, &reply))
        return refused();
    if (reply.Is(2)) {
        ReadAbilities(reply.text);
        return true;
    }
    // A server that is older than service extensions (RFC 5321, 3.2).
    if (relay_.lmtp || !reply.Is(5) || !Command("HELO " + relay_.helo, &reply) || !reply.Is(2))
        return refused();
    return true;
}

void Session::ReadAbilities(const std::string& text)
{
    std::size_t begin = text.find('\n');  // the first line is the server's name
    while (begin != std::string::npos) {
        const std::size_t end = text.find('\n', ++begin);
        const std::string_view line = std::string_view(text).substr(begin, end - begin);
        const std::string_view word = line.substr(0, line.find(' '));
        begin = end;
        if (EqualNoCase(word, "PIPELINING"))
            abilities_.pipelining = true;
        else if (EqualNoCase(word, "8BITMIME"))
            abilities_.eight_bit = true;
        else if (EqualNoCase(word, "SMTPUTF8"))
            abilities_.utf8 = true;
        if (!EqualNoCase(word, "SIZE"))
            continue;
        abilities_.size = true;
        const std::string_view limit = line.substr(std::min(line.size(), word.size() + 1));
        std::int64_t bytes = 0;
        const auto read = std::from_chars(limit.data(), limit.data() + limit.size(), bytes);
        if (read.ec == std::errc() && bytes > 0)
            abilities_.max_size = bytes;
    }
}

bool Session::NextReply(Reply* reply, std::chrono::milliseconds timeout)
{
    // A reply has the time as a whole, however many pieces it comes in; sending begins it anew.
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        switch (parser_.Next(reply)) {
            case ReplyParser::Result::kReply:
                return true;
            case ReplyParser::Result::kMalformed:
                Fail("the relay sent a reply that cannot be understood");
                return false;
            case ReplyParser::Result::kMore:
                break;
        }
        if (!IsOpen() || !Refill())
            return false;
        input_.clear();
        const std::size_t sent = written_;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        const Connection::Event event = connection_.Exchange(
            output_, &written_, &input_, std::max(left, std::chrono::milliseconds(0)));
        parser_.Add(input_);
        if (written_ != sent)
            deadline = std::chrono::steady_clock::now() + timeout;
        if (event != Connection::Event::kProgress) {
            Fail(Words(event));
            return false;
        }
    }
}

bool Session::Refill()
{
    if (more_ && output_.size() - written_ < kLowOutput) {
        output_.erase(0, written_);
        written_ = 0;
        if (!more_(&output_))
            more_ = nullptr;
    } else if (written_ == output_.size()) {
        output_.clear();
        written_ = 0;
    }
    if (source_failed_)
        Fail("the message file cannot be read");
    return !source_failed_;
}

bool Session::Command(const std::string& line, Reply* reply)
{
    output_ += line + "\r\n";
    return NextReply(reply, relay_.answer_timeout);
}

void Session::Fail(const std::string& why)
{
    failure_ = why;
    connection_.Close();
}

void Session::Quit()
{
    if (!IsOpen())
        return;
    output_ += "QUIT\r\n";
    (void)connection_.Exchange(output_, &written_, &input_, std::chrono::milliseconds(0));
    connection_.Close();
}

}  // namespace dl::smtp
