#include <glib.h>
#include <gmime/gmime-charset.h>
#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>

#include "platform/mime/encodings.h"

namespace dl
{

namespace
{

bool IsNumber(std::string_view text)
{
    return !text.empty() && text.size() <= 4 &&
           text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool IsKnown(const std::string& name)
{
    constexpr const char* kNames[] = {
        "us-ascii",    "ascii",          "ansi_x3.4-1968", "utf-8",  "utf8",      "utf-16",
        "utf-16le",    "utf-16be",       "gb2312",         "gbk",    "gb18030",   "big5",
        "euc-jp",      "euc-kr",         "euc-cn",         "euc-tw", "shift_jis", "sjis",
        "cp932",       "ks_c_5601-1987", "koi8-r",         "koi8-u", "tis-620",   "iso-2022-jp",
        "iso-2022-kr", "macintosh",      "latin1"};
    constexpr std::string_view kFamilies[] = {"iso-8859-",   "iso_8859-", "iso8859-",
                                              "windows-125", "cp125",     "cp85",
                                              "cp86",        "ibm85",     "ibm86"};
    for (const char* known : kNames)
        if (name == known)
            return true;
    for (const std::string_view family : kFamilies)
        if (name.starts_with(family) && IsNumber(std::string_view(name).substr(family.size())))
            return true;
    return name == "iso-8859-8-i";  // left to right on the wire as any other text
}

struct IconvCloser {
    void operator()(void* converter) const { iconv_close(converter); }
};

std::unique_ptr<void, IconvCloser> OpenConverter(const std::string& from, const std::string& to)
{
    // What calls itself GB2312 is often GBK and is read so; what is written must be GB2312.
    const char* target = to == "gb2312" ? "EUC-CN" : g_mime_charset_iconv_name(to.c_str());
    iconv_t converter = iconv_open(target, g_mime_charset_iconv_name(from.c_str()));
    if (reinterpret_cast<std::intptr_t>(converter) == -1)
        converter = nullptr;
    return std::unique_ptr<void, IconvCloser>(converter);
}

// One iconv call after the other until the input is used up and the shift state is back; false at
// the first character that does not fit.
bool Run(iconv_t converter, std::string_view bytes, std::string* result)
{
    char block[8192];
    char* in = const_cast<char*>(bytes.data());  // iconv reads only
    std::size_t left = bytes.size();
    result->reserve(2 * bytes.size());  // growing would take three times as much for a moment
    for (bool flushing = false;;) {
        char* out = block;
        std::size_t room = sizeof block;
        const std::size_t rc = flushing ? iconv(converter, nullptr, nullptr, &out, &room)
                                        : iconv(converter, &in, &left, &out, &room);
        const int error = errno;
        result->append(block, sizeof block - room);
        if (rc == static_cast<std::size_t>(-1)) {
            if (error != E2BIG || room == sizeof block)
                return false;
            continue;
        }
        if (rc != 0)  // something was written in another way than it was read
            return false;
        if (flushing)
            return true;
        flushing = true;
    }
}

// As Run, but goes on behind what does not fit.
std::string RunLeniently(iconv_t converter, std::string_view bytes)
{
    char block[8192];
    std::string result;
    char* in = const_cast<char*>(bytes.data());  // iconv reads only
    std::size_t left = bytes.size();
    while (left > 0) {
        char* out = block;
        std::size_t room = sizeof block;
        const std::size_t rc = iconv(converter, &in, &left, &out, &room);
        const int error = errno;
        result.append(block, sizeof block - room);
        if (rc == static_cast<std::size_t>(-1) && error != E2BIG) {
            result += "\xEF\xBF\xBD";
            ++in;
            --left;
        }
    }
    return result;
}

bool IsUtf8(std::string_view bytes)
{
    return g_utf8_validate_len(bytes.data(), bytes.size(), nullptr);
}

std::string ValidUtf8(std::string_view bytes)
{
    char* valid = g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size()));
    std::string text(valid);
    g_free(valid);
    return text;
}

}  // namespace

std::string DecodeForReading(std::string_view bytes, const std::string& from)
{
    if (IsUtf8(bytes) && (from.empty() || from == "us-ascii" || from == "utf-8" || !IsKnown(from)))
        return std::string(bytes);
    const bool named = IsKnown(from) && from != "us-ascii" && from != "ascii";
    const auto converter = OpenConverter(named ? from : "windows-1252", "utf-8");
    if (!converter)
        return ValidUtf8(bytes);
    std::string text = from == "utf-8" || from == "utf8" ? std::string(bytes)
                                                         : RunLeniently(converter.get(), bytes);
    return IsUtf8(text) ? text : ValidUtf8(text);
}

Conversion Convert(std::string_view bytes, const std::string& from, const std::string& to,
                   std::string* result)
{
    result->clear();
    if (!IsKnown(from) || !IsKnown(to))
        return Conversion::kUnknownCharset;
    const auto converter = OpenConverter(from, to);
    if (!converter)
        return Conversion::kUnknownCharset;
    return Run(converter.get(), bytes, result) ? Conversion::kDone : Conversion::kDoesNotFit;
}

std::string HtmlReferences(std::string_view utf8)
{
    std::string out;
    const std::string text(utf8);  // ends with the NUL that GLib wants
    for (const char* at = text.c_str(); *at; at = g_utf8_next_char(at)) {
        const gunichar character = g_utf8_get_char(at);
        if (character < 128)
            out += static_cast<char>(character);
        else
            out += "&#" + std::to_string(character) + ";";
    }
    return out;
}

}  // namespace dl
