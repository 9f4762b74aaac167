#include <cstdint>
#include <utility>

#include "platform/mime/html_text.h"

namespace dl
{
namespace
{

// U+00A0 to U+00FF in order.
constexpr const char* kLatin[] = {
    "nbsp",   "iexcl",  "cent",   "pound",  "curren", "yen",    "brvbar", "sect",   "uml",
    "copy",   "ordf",   "laquo",  "not",    "shy",    "reg",    "macr",   "deg",    "plusmn",
    "sup2",   "sup3",   "acute",  "micro",  "para",   "middot", "cedil",  "sup1",   "ordm",
    "raquo",  "frac14", "frac12", "frac34", "iquest", "Agrave", "Aacute", "Acirc",  "Atilde",
    "Auml",   "Aring",  "AElig",  "Ccedil", "Egrave", "Eacute", "Ecirc",  "Euml",   "Igrave",
    "Iacute", "Icirc",  "Iuml",   "ETH",    "Ntilde", "Ograve", "Oacute", "Ocirc",  "Otilde",
    "Ouml",   "times",  "Oslash", "Ugrave", "Uacute", "Ucirc",  "Uuml",   "Yacute", "THORN",
    "szlig",  "agrave", "aacute", "acirc",  "atilde", "auml",   "aring",  "aelig",  "ccedil",
    "egrave", "eacute", "ecirc",  "euml",   "igrave", "iacute", "icirc",  "iuml",   "eth",
    "ntilde", "ograve", "oacute", "ocirc",  "otilde", "ouml",   "divide", "oslash", "ugrave",
    "uacute", "ucirc",  "uuml",   "yacute", "thorn",  "yuml"};

constexpr std::pair<const char*, std::uint32_t> kOthers[] = {
    {"amp", '&'},       {"lt", '<'},        {"gt", '>'},        {"quot", '"'},
    {"apos", '\''},     {"euro", 0x20AC},   {"hellip", 0x2026}, {"ndash", 0x2013},
    {"mdash", 0x2014},  {"lsquo", 0x2018},  {"rsquo", 0x2019},  {"sbquo", 0x201A},
    {"ldquo", 0x201C},  {"rdquo", 0x201D},  {"bdquo", 0x201E},  {"bull", 0x2022},
    {"trade", 0x2122},  {"larr", 0x2190},   {"rarr", 0x2192},   {"OElig", 0x152},
    {"oelig", 0x153},   {"Scaron", 0x160},  {"scaron", 0x161},  {"ensp", 0x2002},
    {"emsp", 0x2003},   {"thinsp", 0x2009}, {"zwnj", 0x200C},   {"zwj", 0x200D},
    {"dagger", 0x2020}, {"permil", 0x2030}, {"lsaquo", 0x2039}, {"rsaquo", 0x203A},
    {"minus", 0x2212},  {"infin", 0x221E},  {"ne", 0x2260},     {"le", 0x2264},
    {"ge", 0x2265}};

std::string Utf8(std::uint32_t code)
{
    if (code == 0 || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
        code = 0xFFFD;
    const auto tail = [code](int shift) {
        return static_cast<char>(0x80 | ((code >> shift) & 0x3F));
    };
    if (code < 0x80)
        return {static_cast<char>(code)};
    if (code < 0x800)
        return {static_cast<char>(0xC0 | (code >> 6)), tail(0)};
    if (code < 0x10000)
        return {static_cast<char>(0xE0 | (code >> 12)), tail(6), tail(0)};
    return {static_cast<char>(0xF0 | (code >> 18)), tail(12), tail(6), tail(0)};
}

std::string NumberText(std::string_view digits)
{
    std::uint32_t base = 10;
    if (digits.starts_with('x') || digits.starts_with('X')) {
        base = 16;
        digits.remove_prefix(1);
    }
    if (digits.empty() || digits.size() > 8)
        return "";
    std::uint32_t code = 0;
    for (const char c : digits) {
        std::uint32_t digit = 99;
        if (c >= '0' && c <= '9')
            digit = static_cast<std::uint32_t>(c - '0');
        else if (c >= 'a' && c <= 'f')
            digit = static_cast<std::uint32_t>(c - 'a') + 10;
        else if (c >= 'A' && c <= 'F')
            digit = static_cast<std::uint32_t>(c - 'A') + 10;
        if (digit >= base)
            return "";
        code = code * base + digit;
    }
    return Utf8(code);
}

}  // namespace

std::string EntityText(std::string_view name)
{
    if (name.starts_with('#'))
        return NumberText(name.substr(1));
    std::uint32_t code = 0xA0;
    for (const char* latin : kLatin) {
        if (name == latin)
            return Utf8(code);
        ++code;
    }
    for (const auto& [other, character] : kOthers)
        if (name == other)
            return Utf8(character);
    return "";
}

}  // namespace dl
