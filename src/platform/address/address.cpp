#include "platform/address/address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstddef>

namespace dl
{
namespace
{

constexpr std::size_t kMaxAddressBytes = 1000;
constexpr std::size_t kMaxFolderNameBytes = 255;  // NAME_MAX

char Lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool IsAlnum(char c)
{
    const char lower = Lower(c);
    return (lower >= 'a' && lower <= 'z') || (c >= '0' && c <= '9');
}

bool IsHighByte(char c)
{
    return (static_cast<unsigned char>(c) & 0x80) != 0;
}

bool IsAtomChar(char c)
{
    return IsAlnum(c) || IsHighByte(c) ||
           (c != '\0' && std::string_view("!#$%&'*+-/=?^_`{|}~").find(c) != std::string_view::npos);
}

// The underscore is none of RFC 5321's, but hosts with such names send mail.
bool IsLabelChar(char c)
{
    return IsAlnum(c) || IsHighByte(c) || c == '-' || c == '_';
}

// Bytes of the UTF-8 character that begins at `at` (RFC 3629), 0 when there is none or it is a C1
// control.
std::size_t Utf8Size(std::string_view text, std::size_t at)
{
    const auto byte = [&](std::size_t i) {
        return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0U;
    };
    const unsigned first = byte(0);
    const std::size_t size = first < 0x80                    ? 1
                             : first >= 0xC2 && first < 0xE0 ? 2
                             : first >= 0xE0 && first < 0xF0 ? 3
                             : first >= 0xF0 && first < 0xF5 ? 4
                                                             : 0;
    for (std::size_t i = 1; i < size; ++i)
        if ((byte(i) & 0xC0) != 0x80)
            return 0;
    const bool overlong = (first == 0xE0 && byte(1) < 0xA0) || (first == 0xF0 && byte(1) < 0x90);
    const bool surrogate = first == 0xED && byte(1) >= 0xA0;
    const bool beyond = first == 0xF4 && byte(1) >= 0x90;
    const bool control = first == 0xC2 && byte(1) < 0xA0;
    return overlong || surrogate || beyond || control ? 0 : size;
}

// No control character, and UTF-8 where it is not ASCII.
bool IsText(std::string_view text)
{
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t size = Utf8Size(text, at);
        if (size == 0 || static_cast<unsigned char>(text[at]) < 0x20 || text[at] == '\x7F')
            return false;
        at += size;
    }
    return true;
}

// The length of the dot-string at the start of `text`; one with an empty atom ends before it and so
// before the '@'.
std::size_t DotStringSize(std::string_view text)
{
    std::size_t size = 0;
    while (size < text.size() &&
           (IsAtomChar(text[size]) || (text[size] == '.' && size > 0 && text[size - 1] != '.' &&
                                       size + 1 < text.size() && IsAtomChar(text[size + 1]))))
        ++size;
    return size;
}

// The length of the quoted string at the start of `text`, its quotes included; 0 when it does not
// end.
std::size_t QuotedStringSize(std::string_view text)
{
    for (std::size_t at = 1; at < text.size(); ++at) {
        if (text[at] == '"')
            return at + 1;
        if (text[at] != '\\')
            continue;
        if (++at < text.size() && IsHighByte(text[at]))
            return 0;  // only ASCII may be quoted by a backslash
    }
    return 0;
}

bool IsDomainOfLabels(std::string_view domain)
{
    char before = '.';
    for (const char c : domain) {
        const bool edge = before == '.';
        if (c == '.' ? edge || before == '-' : !IsLabelChar(c) || (edge && c == '-'))
            return false;
        before = c;
    }
    return before != '.' && before != '-';
}

bool IsAddressLiteral(std::string_view domain)
{
    if (domain.size() < 3 || domain.front() != '[' || domain.back() != ']')
        return false;
    const std::string inside(domain.substr(1, domain.size() - 2));
    in_addr v4{};
    in6_addr v6{};
    if (StartsWithNoCase(inside, "IPv6:"))
        return inet_pton(AF_INET6, inside.c_str() + 5, &v6) == 1;
    const std::size_t colon = inside.find(':');
    if (colon == std::string::npos)
        return inet_pton(AF_INET, inside.c_str(), &v4) == 1;
    for (std::size_t i = 0; i < inside.size(); ++i) {
        const char c = inside[i];
        if (i < colon ? !IsAlnum(c) && c != '-' : c < '!' || c > '~' || (c >= '[' && c <= ']'))
            return false;
    }
    return colon > 0 && inside[colon - 1] != '-' && colon + 1 < inside.size();
}

}  // namespace

int RecipParse(const std::string& address, RT* record, int /*flag*/)
{
    Clear_RT(record);
    std::string_view text = address;
    if (text.size() >= 2 && text.front() == '<' && text.back() == '>')
        text = text.substr(1, text.size() - 2);
    if (text.empty() || text.size() > kMaxAddressBytes || !IsText(text))
        return 0;
    const std::size_t at = text.front() == '"' ? QuotedStringSize(text) : DotStringSize(text);
    if (at == 0 || at >= text.size() || text[at] != '@')
        return 0;
    const std::string_view domain = text.substr(at + 1);
    if (!IsDomainOfLabels(domain) && !IsAddressLiteral(domain))
        return 0;
    record->addresses.push_back(
        {std::string(text), std::string(text.substr(0, at)), std::string(domain)});
    return 1;
}

void Clear_RT(RT* record)
{
    record->addresses.clear();
}

bool EqualNoCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && StartsWithNoCase(a, b);
}

bool StartsWithNoCase(std::string_view text, std::string_view prefix)
{
    if (text.size() < prefix.size())
        return false;
    for (std::size_t i = 0; i < prefix.size(); ++i)
        if (Lower(text[i]) != Lower(prefix[i]))
            return false;
    return true;
}

std::string LowerCase(std::string_view text)
{
    std::string out(text);
    for (char& c : out)
        c = Lower(c);
    return out;
}

bool IsSafeFolderName(const std::string& list)
{
    RT record;
    return list.size() <= kMaxFolderNameBytes && list.find('/') == std::string::npos &&
           RecipParse(list, &record, 1) == 1 && record.addresses.front().full == list;
}

}  // namespace dl
