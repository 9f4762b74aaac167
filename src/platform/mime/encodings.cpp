#include "platform/mime/encodings.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "platform/address/address.h"

namespace dl
{

namespace
{

constexpr std::size_t kEncodedLine = 76;  // characters, RFC 2045, 6.7 and 6.8
constexpr std::size_t kSmtpLine = 998;
constexpr char kHex[] = "0123456789ABCDEF";
constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

bool IsBlank(char c)
{
    return c == ' ' || c == '\t';
}

Decoded DecodeQuoted(std::string_view raw)
{
    Decoded out;
    out.bytes.reserve(raw.size());
    for (std::size_t at = 0; at < raw.size();) {
        std::size_t end = raw.find('\n', at);
        const bool feed = end != std::string_view::npos;
        end = feed ? end : raw.size();
        const bool crlf = feed && end > at && raw[end - 1] == '\r';
        std::string_view line = raw.substr(at, end - at - (crlf ? 1 : 0));
        at = feed ? end + 1 : end;
        while (!line.empty() && IsBlank(line.back()))  // put there on the way, RFC 2045, 6.7 (3)
            line.remove_suffix(1);
        const bool soft = line.ends_with('=');
        if (soft)
            line.remove_suffix(1);
        for (std::size_t i = 0; i < line.size(); ++i) {
            if (line[i] != '=') {
                out.bytes += line[i];
                continue;
            }
            const bool room = i + 2 < line.size();
            const int high = room ? HexDigit(line[i + 1]) : -1;
            const int low = room ? HexDigit(line[i + 2]) : -1;
            if (high < 0 || low < 0) {
                out.clean = false;
                out.bytes += '=';
                continue;
            }
            out.bytes += static_cast<char>(high * 16 + low);
            i += 2;
        }
        if (!soft && feed)
            out.bytes += crlf ? "\r\n" : "\n";
    }
    return out;
}

bool IsPlainQuoted(char c)
{
    return (c > ' ' && c < 127 && c != '=') || IsBlank(c);
}

// Appends one line without its end.
void EncodeQuotedLine(std::string_view line, std::string_view eol, std::string* out)
{
    std::size_t column = 0;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const auto byte = static_cast<unsigned char>(line[i]);
        const bool last = i + 1 == line.size();
        const bool plain = IsPlainQuoted(line[i]) && !(last && IsBlank(line[i]));
        const std::size_t width = plain ? 1 : 3;
        if (column + width > kEncodedLine - (last ? 0 : 1)) {
            *out += '=';
            *out += eol;
            column = 0;
        }
        if (plain) {
            *out += line[i];
        } else {
            *out += '=';
            *out += kHex[byte >> 4];
            *out += kHex[byte & 15];
        }
        column += width;
    }
}

std::string EncodeQuoted(std::string_view bytes, std::string_view eol)
{
    const auto plain =
        static_cast<std::size_t>(std::count_if(bytes.begin(), bytes.end(), IsPlainQuoted));
    const std::size_t encoded = plain + 3 * (bytes.size() - plain);
    std::string out;
    out.reserve(encoded + encoded / (kEncodedLine - 3) * (1 + eol.size()));
    for (;;) {
        const std::size_t end = bytes.find(eol);
        EncodeQuotedLine(bytes.substr(0, end), eol, &out);
        if (end == std::string_view::npos)
            return out;
        out += eol;
        bytes.remove_prefix(end + eol.size());
    }
}

std::array<int, 256> MakeBase64Values()
{
    std::array<int, 256> values{};
    values.fill(-1);
    for (std::size_t i = 0; i < kAlphabet.size(); ++i)
        values[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int>(i);
    return values;
}

Decoded DecodeBase64(std::string_view raw)
{
    static const std::array<int, 256> kValues = MakeBase64Values();
    Decoded out;
    out.bytes.reserve(raw.size() / 4 * 3);
    std::uint32_t bits = 0;
    int count = 0;
    int padding = 0;
    for (const char c : raw) {
        if (IsBlank(c) || c == '\r' || c == '\n')
            continue;
        if (c == '=') {
            ++padding;
            continue;
        }
        const int value = kValues[static_cast<unsigned char>(c)];
        if (value < 0 || padding > 0)
            out.clean = false;
        if (value < 0)
            continue;
        bits = bits << 6 | static_cast<std::uint32_t>(value);
        if (++count % 4 != 0)
            continue;
        for (const int shift : {16, 8, 0})
            out.bytes += static_cast<char>(bits >> shift & 255);
    }
    const int left = count % 4;
    if (left == 1 || padding != (4 - left) % 4)
        out.clean = false;
    if (left == 2)
        out.bytes += static_cast<char>(bits >> 4 & 255);
    if (left == 3) {
        out.bytes += static_cast<char>(bits >> 10 & 255);
        out.bytes += static_cast<char>(bits >> 2 & 255);
    }
    return out;
}

std::string EncodeBase64(std::string_view bytes, std::string_view eol)
{
    std::string out;
    out.reserve(bytes.size() / 3 * 4 + bytes.size() / 57 * eol.size() + 8);
    std::size_t column = 0;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t have = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t bits = 0;
        for (std::size_t k = 0; k < 3; ++k)
            bits = bits << 8 | (k < have ? static_cast<unsigned char>(bytes[i + k]) : 0U);
        for (std::size_t k = 0; k < 4; ++k)
            out += k <= have ? kAlphabet[bits >> (18 - 6 * k) & 63] : '=';
        column += 4;
        if (column == kEncodedLine) {
            out += eol;
            column = 0;
        }
    }
    if (column > 0)
        out += eol;
    return out;
}

}  // namespace

std::optional<Encoding> EncodingFromHeader(std::string_view value)
{
    value = value.substr(0, value.find_first_of("(;"));
    const std::size_t first = value.find_first_not_of(" \t\r\n");
    const std::size_t last = value.find_last_not_of(" \t\r\n");
    const std::string name =
        LowerCase(first == std::string_view::npos ? "" : value.substr(first, last - first + 1));
    if (name.empty() || name == "7bit")
        return Encoding::k7Bit;
    if (name == "8bit" || name == "binary")
        return Encoding::k8Bit;
    if (name == "quoted-printable")
        return Encoding::kQuotedPrintable;
    if (name == "base64")
        return Encoding::kBase64;
    return std::nullopt;
}

const char* EncodingName(Encoding encoding)
{
    constexpr const char* kNames[] = {"7bit", "8bit", "quoted-printable", "base64"};
    return kNames[static_cast<int>(encoding)];
}

Decoded Decode(Encoding encoding, std::string_view raw)
{
    if (encoding == Encoding::kQuotedPrintable)
        return DecodeQuoted(raw);
    if (encoding == Encoding::kBase64)
        return DecodeBase64(raw);
    return {std::string(raw), true};
}

std::string Encode(Encoding encoding, std::string bytes, std::string_view eol)
{
    if (encoding == Encoding::kQuotedPrintable)
        return EncodeQuoted(bytes, eol);
    if (encoding == Encoding::kBase64)
        return EncodeBase64(bytes, eol);
    return bytes;
}

bool Has8Bit(std::string_view bytes)
{
    return std::any_of(bytes.begin(), bytes.end(),
                       [](char c) { return static_cast<unsigned char>(c) > 127; });
}

bool HasLongLine(std::string_view bytes)
{
    for (std::size_t at = 0; at < bytes.size();) {
        const std::size_t end = std::min(bytes.find('\n', at), bytes.size());
        if (end - at > kSmtpLine)
            return true;
        at = end + 1;
    }
    return false;
}

std::string WithLineEnds(std::string_view text, std::string_view eol)
{
    std::string out;
    const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
    out.reserve(text.size() + lines * eol.size());
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        if (end == std::string_view::npos) {
            out += text.substr(at);
            break;
        }
        const bool crlf = end > at && text[end - 1] == '\r';
        out += text.substr(at, end - at - (crlf ? 1 : 0));
        out += eol;
        at = end + 1;
    }
    return out;
}

std::string LineEndOf(std::string_view text, std::string_view otherwise)
{
    const std::size_t feed = text.find('\n');
    if (feed == std::string_view::npos)
        return std::string(otherwise);
    return feed > 0 && text[feed - 1] == '\r' ? "\r\n" : "\n";
}

}  // namespace dl
