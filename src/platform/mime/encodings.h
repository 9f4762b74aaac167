// Content-transfer-encodings (RFC 2045, 6) and charsets of a text part that is changed. Pure
// functions.
//
// Decoders are strict, unlike those of a mail reader: what is decoded here is encoded again and
// must come out the same, so a body that a reader would have to guess at is reported, and stays as
// it is.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace dl
{

enum class Encoding { k7Bit, k8Bit, kQuotedPrintable, kBase64 };

// The encoding that a Content-Transfer-Encoding value names; "" is 7bit. None for an unknown one.
[[nodiscard]] std::optional<Encoding> EncodingFromHeader(std::string_view value);
[[nodiscard]] const char* EncodingName(Encoding encoding);

struct Decoded {
    std::string bytes;
    bool clean = true;  // false: not of the encoding's grammar, so `bytes` is a guess
};
[[nodiscard]] Decoded Decode(Encoding encoding, std::string_view raw);
// Encoded with lines that end with `eol`; 7bit and 8bit give the bytes unchanged. In
// quoted-printable only `eol` is a line break, any other CR or LF is written as =0D, =0A.
[[nodiscard]] std::string Encode(Encoding encoding, std::string bytes, std::string_view eol);

[[nodiscard]] bool Has8Bit(std::string_view bytes);
// Whether a line is too long to go over SMTP as it is (RFC 5321, 4.5.3.1.6).
[[nodiscard]] bool HasLongLine(std::string_view bytes);
// `text` with each "\n", "\r\n" replaced by `eol`.
[[nodiscard]] std::string WithLineEnds(std::string_view text, std::string_view eol);
// The line end that `text` uses first; `otherwise` when it has only one line.
[[nodiscard]] std::string LineEndOf(std::string_view text, std::string_view otherwise);

enum class Conversion { kDone, kUnknownCharset, kDoesNotFit };
// Converts strictly, ending in the initial shift state. Only charsets that mail uses are known (a
// name comes from the mail, and not every converter of the system should run at a stranger's wish).
[[nodiscard]] Conversion Convert(std::string_view bytes, const std::string& from,
                                 const std::string& to, std::string* result);
// Text in charset `from` as UTF-8 to be read by people: what is not of the charset becomes U+FFFD,
// and a text whose charset is missing, unknown or wrong is taken for UTF-8 or windows-1252. Valid
// UTF-8 in every case; NUL bytes become U+FFFD.
[[nodiscard]] std::string DecodeForReading(std::string_view bytes, const std::string& from);
// UTF-8 text with each non-ASCII character as "&#N;".
[[nodiscard]] std::string HtmlReferences(std::string_view utf8);

}  // namespace dl
