#include "platform/address/utf8.h"

namespace dl
{

namespace
{

// The number of bytes of the character that begins with `first`; 0 when none does.
std::size_t CharacterLength(unsigned char first)
{
    if (first < 0x80)
        return 1;
    if (first >= 0xC2 && first <= 0xDF)
        return 2;
    if (first >= 0xE0 && first <= 0xEF)
        return 3;
    return first >= 0xF0 && first <= 0xF4 ? 4 : 0;
}

}  // namespace

bool IsUtf8(std::string_view text)
{
    for (std::size_t i = 0; i < text.size();) {
        const auto first = static_cast<unsigned char>(text[i]);
        const std::size_t length = CharacterLength(first);
        if (length == 0 || length > text.size() - i)
            return false;
        for (std::size_t k = 1; k < length; k++)
            if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80)
                return false;
        const auto second = length > 1 ? static_cast<unsigned char>(text[i + 1]) : 0;
        // Overlong forms, surrogates, beyond U+10FFFF.
        if ((first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
            (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F))
            return false;
        i += length;
    }
    return true;
}

}  // namespace dl
