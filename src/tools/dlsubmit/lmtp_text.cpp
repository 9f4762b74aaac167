#include "tools/dlsubmit/lmtp_text.h"

#include <cstring>

namespace dl
{
namespace
{

// Finds the next line end or CR. Each byte is looked at for '\n' once, however many CRs there are.
class Breaks
{
 public:
    explicit Breaks(std::string_view text) : text_(text) {}
    std::size_t From(std::size_t at)
    {
        if (line_end_ < at || !searched_)
            line_end_ = Find('\n', at, text_.size());
        searched_ = true;
        return Find('\r', at, line_end_);
    }

 private:
    [[nodiscard]] std::size_t Find(char c, std::size_t from, std::size_t to) const
    {
        const void* found = std::memchr(text_.data() + from, c, to - from);
        return found ? static_cast<std::size_t>(static_cast<const char*>(found) - text_.data())
                     : to;
    }
    std::string_view text_;
    std::size_t line_end_ = 0;
    bool searched_ = false;
};

}  // namespace

std::size_t TextDecoder::Decode(std::string_view input, std::string* out)
{
    Breaks breaks(input);
    std::size_t at = 0;
    while (at < input.size() && !Ended()) {
        if (state_ == State::kInLine) {
            const std::size_t stop = breaks.From(at);
            out->append(input.data() + at, stop - at);
            at = stop;
            if (at == input.size())
                break;
        }
        Put(input[at++], out);
    }
    return at;
}

void TextDecoder::Put(char c, std::string* out)
{
    if (state_ == State::kLineStart && c == '.') {
        state_ = State::kDot;
        return;
    }
    if (state_ == State::kDot && c == '\r') {
        state_ = State::kDotCr;
        return;
    }
    if (state_ == State::kDotCr && c == '\n') {
        state_ = State::kEnded;
        return;
    }
    const bool after_cr = state_ == State::kCr || state_ == State::kDotCr;
    if (after_cr && c == '\n') {
        *out += "\r\n";
        state_ = State::kLineStart;
        return;
    }
    if (c == '\r') {
        state_ = State::kCr;
        return;
    }
    if (after_cr)
        *out += ' ';
    state_ = State::kInLine;
    if (c == '\n')
        *out += '\r';
    *out += c;
}

}  // namespace dl
