// Replies of an SMTP or LMTP server (RFC 5321, 4.2; enhanced codes: RFC 2034).
//
// Pure and incremental: bytes go in as they come, whole replies come out in order. Whatever the
// server sends, a bounded part of it is kept. A line that is no reply line, or whose code differs
// from the lines before it, makes the parser malformed for good: what follows could be matched to
// the wrong command. A line may end with LF alone.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace dl::smtp
{

struct Reply {
    int code = 0;          // 200 to 599
    std::string enhanced;  // "5.1.1", or empty
    std::string text;      // behind the codes, lines joined by '\n', cut at kMaxReplyText

    [[nodiscard]] bool Is(int hundreds) const { return code / 100 == hundreds; }
};

inline constexpr std::size_t kMaxReplyLine = 2048;   // bytes that are looked at
inline constexpr std::size_t kMaxReplyText = 16384;  // bytes that are kept of a reply
inline constexpr std::size_t kMaxReplyLines = 1000;  // a longer one is malformed

class ReplyParser
{
 public:
    enum class Result { kReply, kMore, kMalformed };

    void Add(std::string_view bytes);
    // kReply: `reply` is the next one. kMore: bytes are missing.
    [[nodiscard]] Result Next(Reply* reply);
    // Nothing is left of what was added.
    [[nodiscard]] bool Empty() const;

 private:
    enum class Line { kLast, kContinued, kMalformed };
    bool TakeLine();
    Line ReadLine(std::string_view line);
    void Keep(std::string_view text);

    std::string input_;
    std::size_t at_ = 0;
    std::string line_;  // the line so far
    Reply reply_;
    std::size_t lines_ = 0;
    bool malformed_ = false;
};

}  // namespace dl::smtp
