// Mail addresses: the mailbox form of RFC 5321, 4.1.2.
//
// Pure functions. Accepted: a dot-string or quoted local part, '@', a domain of labels or an
// address literal; UTF-8 (RFC 6531) in both parts. Refused: control characters and NUL, blanks and
// bare angle brackets outside a quoted local part, an empty part, more than 1000 bytes in all. One
// pair of angle brackets around the whole is taken off.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace dl
{

struct ParsedAddress {
    std::string full;    // local@domain, as given, without angle brackets
    std::string local;   // as given, quotes included
    std::string domain;  // as given
};

struct RT {
    std::vector<ParsedAddress> addresses;
};

// Splits `address` into `record`. Returns 1 on success, 0 when it is no mailbox (the record is then
// empty). `flag` is 1 in every call.
[[nodiscard]] int RecipParse(const std::string& address, RT* record, int flag);
void Clear_RT(RT* record);

// Whether the two texts are equal without regard to the case of ASCII letters.
[[nodiscard]] bool EqualNoCase(std::string_view a, std::string_view b);
// Whether `text` begins with `prefix`, without regard to the case of ASCII letters.
[[nodiscard]] bool StartsWithNoCase(std::string_view text, std::string_view prefix);
// A copy with ASCII letters in lower case.
[[nodiscard]] std::string LowerCase(std::string_view text);

// Whether `list` (an address) may be used as the name of one folder: a parsed address, no '/', no
// NUL, not beginning with '.', at most 255 bytes. What this refuses is never part of a path.
[[nodiscard]] bool IsSafeFolderName(const std::string& list);

}  // namespace dl
