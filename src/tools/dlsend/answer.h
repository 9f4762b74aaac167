// What a relay said of a recipient, as one line of text, and back. Pure.
#pragma once

#include <string>
#include <string_view>

namespace dl
{

struct Answer {
    int code = 0;                    // 0: not the relay's words
    std::string_view enhanced = {};  // may be empty
    std::string_view text = {};
};
// Views into `line`, "550 5.1.1 no such user".
[[nodiscard]] Answer ParseAnswer(std::string_view line);

// The Status field (RFC 3464, 2.3.4) of a recipient who was refused with this answer, or given up.
[[nodiscard]] std::string StatusField(const Answer& answer, bool given_up);

// `text` as one line of UTF-8 without control characters, at most `limit` bytes.
[[nodiscard]] std::string CleanText(std::string_view text, std::size_t limit);
// The same in ASCII, '?' for all else.
[[nodiscard]] std::string CleanAscii(std::string_view text, std::size_t limit);
// A mail address as a field's value: "rfc822; a@b", or "utf-8; ..." in the form of RFC 6533, 3 that
// is ASCII.
[[nodiscard]] std::string AddressField(std::string_view address);

}  // namespace dl
