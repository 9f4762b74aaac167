// The text of a message on its way in (RFC 5321, 4.5.2): finds its end and undoes dot-stuffing.
//
// The end is CRLF "." CRLF and nothing else, and only a dot that follows CRLF was stuffed: a client
// that takes a bare LF or CR for a line end, or for none, cannot be made to see another end than we
// do. What comes out has CRLF at the end of each line and neither CR nor LF elsewhere: a bare LF
// becomes CRLF, CRs before a line end are left out (the empty line behind a header would else be
// none), other bare CRs become a blank. All other bytes, NUL among them, come out as they went in.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace dl
{

class TextDecoder
{
 public:
    // Appends what `input` stands for to `out`. Returns how many bytes it took: all, or those up to
    // the end of the text.
    std::size_t Decode(std::string_view input, std::string* out);
    [[nodiscard]] bool Ended() const { return state_ == State::kEnded; }

 private:
    enum class State {
        kLineStart,  // also before the first byte
        kDot,        // a dot at the start of a line
        kDotCr,
        kInLine,
        kCr,
        kEnded
    };
    void Put(char c, std::string* out);
    State state_ = State::kLineStart;
};

}  // namespace dl
