#include "tools/dlsend/answer.h"

#include <algorithm>
#include <cstdint>

#include "platform/address/utf8.h"
#include "platform/log/format.h"

namespace dl
{
namespace
{

constexpr std::size_t kMostField = 900;  // bytes; a line may have 998 (RFC 5322, 2.1.1)

bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

std::string_view FirstWord(std::string_view text)
{
    return text.substr(0, text.find(' '));
}

std::string_view Behind(std::string_view text, std::string_view word)
{
    return text.substr(std::min(text.size(), word.size() + 1));
}

// Digits and two dots, the class first, then two numbers of at most three digits (RFC 3463, 2).
bool IsEnhanced(std::string_view word)
{
    return word.size() >= 5 && word.rfind('.') <= 5 && word.size() - word.rfind('.') <= 4 &&
           (word[0] == '2' || word[0] == '4' || word[0] == '5') && word[1] == '.' &&
           std::count(word.begin(), word.end(), '.') == 2 && IsDigit(word[2]) &&
           IsDigit(word.back()) &&
           std::all_of(word.begin(), word.end(), [](char c) { return IsDigit(c) || c == '.'; });
}

// Bytes of the well-formed character at the start of `text`, 0 when there is none.
std::size_t CharacterSize(std::string_view text)
{
    for (std::size_t size = 1; size <= 4 && size <= text.size(); ++size)
        if (IsUtf8(text.substr(0, size)))
            return size;
    return 0;
}

std::uint32_t CodePoint(std::string_view character)
{
    if (character.size() == 1)
        return static_cast<unsigned char>(character[0]);
    const unsigned mask = character.size() == 2 ? 0x1F : character.size() == 3 ? 0x0F : 0x07;
    std::uint32_t point = static_cast<unsigned char>(character[0]) & mask;
    for (const char c : character.substr(1))
        point = point << 6 | (static_cast<unsigned char>(c) & 0x3FU);
    return point;
}

}  // namespace

Answer ParseAnswer(std::string_view line)
{
    Answer answer;
    const std::string_view code = FirstWord(line);
    if (code.size() == 3 && std::all_of(code.begin(), code.end(), IsDigit)) {
        answer.code = (code[0] - '0') * 100 + (code[1] - '0') * 10 + (code[2] - '0');
        line = Behind(line, code);
    }
    if (IsEnhanced(FirstWord(line))) {
        answer.enhanced = FirstWord(line);
        line = Behind(line, answer.enhanced);
    }
    answer.text = line;
    return answer;
}

std::string StatusField(const Answer& answer, bool given_up)
{
    if (given_up)
        return "4.4.7";  // delivery time expired
    return answer.enhanced.starts_with('5') ? std::string(answer.enhanced) : "5.0.0";
}

std::string CleanText(std::string_view text, std::size_t limit)
{
    std::string clean;
    while (!text.empty()) {
        const std::size_t size = CharacterSize(text);
        const std::string_view character = text.substr(0, std::max<std::size_t>(size, 1));
        if (clean.size() + character.size() > limit)
            break;
        const std::uint32_t point = size == 0 ? 0xFFFD : CodePoint(character);
        if (point == 0xFFFD)
            clean += '?';
        else if (point < 0x20 || (point >= 0x7F && point < 0xA0))
            clean += ' ';
        else
            clean += character;
        text.remove_prefix(character.size());
    }
    return clean;
}

std::string CleanAscii(std::string_view text, std::size_t limit)
{
    std::string clean(text.substr(0, limit));
    for (char& c : clean)
        if (const auto byte = static_cast<unsigned char>(c); byte >= 0x7F)
            c = '?';
        else if (byte < 0x20)
            c = ' ';
    return clean;
}

std::string AddressField(std::string_view address)
{
    const bool ascii = std::all_of(address.begin(), address.end(),
                                   [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (ascii)
        return "rfc822; " + CleanAscii(address, kMostField);
    std::string field = "utf-8; ";
    const std::string clean = CleanText(address, kMostField);
    for (std::string_view rest = clean; !rest.empty() && field.size() < kMostField;) {
        const std::string_view character = rest.substr(0, CharacterSize(rest));
        const std::uint32_t point = CodePoint(character);
        if (point > ' ' && point < 0x7F && point != '\\' && point != '+' && point != '=')
            field += character;
        else
            field += FormatText("\\x{%X}", static_cast<unsigned>(point));
        rest.remove_prefix(character.size());
    }
    return field;
}

}  // namespace dl
