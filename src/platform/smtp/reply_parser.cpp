#include "platform/smtp/reply_parser.h"

#include <algorithm>
#include <utility>

namespace dl::smtp
{
namespace
{

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

// Bytes of the number at the start of `text`: one to three digits, else 0.
std::size_t NumberSize(std::string_view text)
{
    std::size_t size = 0;
    while (size < text.size() && size < 4 && IsDigit(text[size]))
        ++size;
    return size <= 3 ? size : 0;
}

// The enhanced status code at the start of `text` that fits the reply's class; empty when there is
// none.
std::string_view EnhancedCode(std::string_view text, int code)
{
    if (text.size() < 5 || text[0] != '0' + code / 100 || code / 100 == 3 || text[1] != '.')
        return {};
    const std::size_t subject = NumberSize(text.substr(2));
    const std::size_t dot = 2 + subject;
    if (subject == 0 || dot >= text.size() || text[dot] != '.')
        return {};
    const std::size_t detail = NumberSize(text.substr(dot + 1));
    const std::size_t end = dot + 1 + detail;
    if (detail == 0 || (end < text.size() && text[end] != ' '))
        return {};
    return text.substr(0, end);
}

}  // namespace

void ReplyParser::Add(std::string_view bytes)
{
    if (!malformed_)
        input_ += bytes;
}

ReplyParser::Result ReplyParser::Next(Reply* reply)
{
    while (!malformed_ && TakeLine()) {
        const Line line = ReadLine(line_);
        line_.clear();
        if (line == Line::kLast) {
            *reply = std::exchange(reply_, Reply());
            lines_ = 0;
            return Result::kReply;
        }
        malformed_ = line == Line::kMalformed || lines_ >= kMaxReplyLines;
    }
    if (malformed_)
        input_.clear();
    return malformed_ ? Result::kMalformed : Result::kMore;
}

bool ReplyParser::Empty() const
{
    return !malformed_ && at_ >= input_.size() && line_.empty() && lines_ == 0;
}

// Puts the rest of the line into line_, as far as it is kept; false when its end has not come.
bool ReplyParser::TakeLine()
{
    const std::size_t end = input_.find('\n', at_);
    const std::string_view piece = std::string_view(input_).substr(at_, end - at_);
    line_ += piece.substr(0, std::min(piece.size(), kMaxReplyLine - line_.size()));
    if (end != std::string::npos) {
        at_ = end + 1;
        return true;
    }
    input_.clear();
    at_ = 0;
    return false;
}

ReplyParser::Line ReplyParser::ReadLine(std::string_view line)
{
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    const bool coded = line.size() >= 3 && line[0] >= '2' && line[0] <= '5' && IsDigit(line[1]) &&
                       IsDigit(line[2]);
    if (!coded || (line.size() > 3 && line[3] != ' ' && line[3] != '-'))
        return Line::kMalformed;
    const int code = (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
    if (lines_++ > 0 && code != reply_.code)
        return Line::kMalformed;
    reply_.code = code;
    const bool continued = line.size() > 3 && line[3] == '-';
    std::string_view text = line.substr(std::min<std::size_t>(4, line.size()));
    const std::string_view enhanced = EnhancedCode(text, code);
    if (lines_ == 1)
        reply_.enhanced = enhanced;
    if (!enhanced.empty() && enhanced == reply_.enhanced)
        text.remove_prefix(std::min(enhanced.size() + 1, text.size()));
    Keep(text);
    return continued ? Line::kContinued : Line::kLast;
}

void ReplyParser::Keep(std::string_view text)
{
    if (lines_ > 1 && reply_.text.size() < kMaxReplyText)
        reply_.text += '\n';
    reply_.text += text.substr(0, kMaxReplyText - std::min(kMaxReplyText, reply_.text.size()));
}

}  // namespace dl::smtp
