#include "platform/address/address.h"
#include "platform/mime/disclaimer_private.h"

namespace dl
{

namespace
{

constexpr const char* kGuess = "its transfer encoding is broken";
constexpr const char* kUnknown = "its charset is not known";

std::string DeclaredCharset(const TextPart& part)
{
    return part.charset.empty() ? "us-ascii" : part.charset;
}

// Whether a line break is two (one) plain bytes in this charset, as in all but the wide ones.
bool HasPlainLineEnds(const std::string& charset)
{
    std::string converted;
    return Convert("\r\n", "utf-8", charset, &converted) == Conversion::kDone &&
           converted == "\r\n";
}

// Lines as RFC 3676, 4.4 and 4.2 want them: stuffed, and no blank at the end that would flow them
// together.
std::string Flowed(std::string_view text)
{
    std::string out;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at);
        std::string line(text.substr(at, end - at));
        at = end + 1;
        while (line != "-- " && line.ends_with(' '))
            line.pop_back();
        if (line.starts_with(' ') || line.starts_with('>') || line.starts_with("From "))
            out += ' ';
        out += line;
        out += '\n';
    }
    return out;
}

// What must stand between the body and an appended line: the body's missing line end, and in flowed
// text an empty line when its last line would flow on.
std::string Gap(std::string_view body, bool flowed, const std::string& eol)
{
    if (body.empty())
        return "";
    std::string gap = body.ends_with('\n') ? "" : eol;
    std::string_view last = body;
    while (last.ends_with('\n') || last.ends_with('\r'))
        last.remove_suffix(1);
    const bool only_one_end = body.size() - last.size() <= 2;
    const std::size_t feed = last.rfind('\n');
    last = feed == std::string_view::npos ? last : last.substr(feed + 1);
    if (flowed && only_one_end && last.ends_with(' ') && last != "-- ")
        gap += eol;
    return gap;
}

// Whether the last line of a quoted-printable body ends with the "=" of a soft break whose line end
// is missing.
bool EndsInSoftBreak(std::string_view raw)
{
    const std::size_t last = raw.find_last_not_of(" \t");
    return last != std::string_view::npos && raw[last] == '=';
}

// Inserts `text` (in the part's charset, lines ending with "\n") at `at` of the decoded body.
std::string InsertDecoded(const TextPart& part, std::string decoded, std::size_t at,
                          const std::string& text)
{
    const bool wrapped = part.encoding == Encoding::kBase64;
    const std::string eol = wrapped ? LineEndOf(decoded, part.eol) : part.eol;
    const std::string_view before = std::string_view(decoded).substr(0, at);
    const std::string inserted = Gap(before, part.flowed, eol) + WithLineEnds(text, eol);
    decoded.reserve(decoded.size() + inserted.size());
    decoded.insert(at, inserted);
    return decoded;
}

Edit InsertRaw(const TextPart& part, std::size_t at, std::string bytes)
{
    const std::int64_t place = part.body_start + static_cast<std::int64_t>(at);
    return {{{place, place, std::move(bytes)}}, nullptr};
}

// Appends `text`, in the part's charset, with as few bytes changed as the encoding allows.
Edit Append(const TextPart& part, const std::string& text)
{
    const bool raw = part.encoding == Encoding::k7Bit || part.encoding == Encoding::k8Bit;
    Decoded body = raw ? Decoded{} : Decode(part.encoding, part.body);
    const std::string lines =
        Gap(raw ? part.body : body.bytes, part.flowed, part.eol) + WithLineEnds(text, part.eol);
    switch (part.encoding) {
        case Encoding::kQuotedPrintable:
            return InsertRaw(part, part.body.size(),
                             (EndsInSoftBreak(part.body) ? part.eol : "") +
                                 Encode(part.encoding, lines, part.eol));
        case Encoding::k7Bit:
            if (!Has8Bit(lines) && !HasLongLine(lines))
                return InsertRaw(part, part.body.size(), lines);
            break;
        case Encoding::k8Bit:
            if (!HasLongLine(lines))
                return InsertRaw(part, part.body.size(), lines);
            break;
        case Encoding::kBase64:
            break;
    }
    if (!body.clean)
        return Edit::Leave(kGuess);
    std::string bytes = std::move(body.bytes);
    if (raw)
        bytes = part.body;
    const std::size_t end = bytes.size();
    return RewritePart(part, InsertDecoded(part, std::move(bytes), end, text), false);
}

std::size_t FindTag(std::string_view text, std::string_view tag)
{
    for (std::size_t at = text.rfind('<'); at != std::string_view::npos;
         at = at == 0 ? std::string_view::npos : text.rfind('<', at - 1))
        if (StartsWithNoCase(text.substr(at), tag))
            return at;
    return std::string_view::npos;
}

std::size_t CountTag(std::string_view text, std::string_view tag)
{
    std::size_t count = 0;
    for (std::size_t at = text.find('<'); at != std::string_view::npos; at = text.find('<', at + 1))
        if (StartsWithNoCase(text.substr(at), tag))
            ++count;
    return count;
}

struct Place {
    std::size_t at = 0;
    std::string_view tag;  // that stands there; empty at the end of the text
};

// Before the last </body>, else before </html>, else at the end.
Place HtmlPlace(std::string_view text)
{
    for (const std::string_view tag : {"</body", "</html"})
        if (const std::size_t at = FindTag(text, tag); at != std::string_view::npos)
            return {at, tag};
    return {text.size(), {}};
}

// Quoted-printable: the old bytes stay where the tag stands in them unbroken; the soft break in
// front of the insertion keeps the text before it as it was.
Edit InsertQuoted(const TextPart& part, Decoded body, const Place& place, const std::string& html)
{
    const bool unbroken = CountTag(body.bytes, place.tag) == CountTag(part.body, place.tag);
    if (!unbroken && !body.clean)
        return Edit::Leave(kGuess);
    if (!unbroken)
        return RewritePart(part, InsertDecoded(part, std::move(body.bytes), place.at, html), false);
    const std::size_t at = FindTag(part.body, place.tag);
    std::string bytes = Encode(part.encoding, WithLineEnds(html, part.eol), part.eol);
    if (at > 0 && part.body[at - 1] != '\n')
        bytes = "=" + part.eol + bytes;
    return InsertRaw(part, at, std::move(bytes));
}

}  // namespace

Edit EditPlain(const TextPart& part, const std::string& text)
{
    const std::string lines = part.flowed ? Flowed(text) : text;
    const std::string charset = DeclaredCharset(part);
    std::string converted;
    const Conversion conversion = Convert(lines, "utf-8", charset, &converted);
    if (conversion == Conversion::kUnknownCharset)
        return Edit::Leave(kUnknown);
    const bool plain = HasPlainLineEnds(charset);
    if (conversion == Conversion::kDone && plain)
        return Append(part, converted);
    Decoded body = Decode(part.encoding, part.body);
    if (!body.clean)
        return Edit::Leave(kGuess);
    std::string utf8;
    if (const char* reason = BodyAsUtf8(part, body.bytes, &utf8))
        return Edit::Leave(reason);
    body = {};  // it may be large
    if (!plain && part.encoding != Encoding::kBase64)
        utf8 = WithLineEnds(utf8, part.eol);  // now they are line ends of the message
    const std::size_t end = utf8.size();
    return RewritePart(part, InsertDecoded(part, std::move(utf8), end, lines), true);
}

Edit EditHtml(const TextPart& part, const std::string& html)
{
    const std::string charset = DeclaredCharset(part);
    std::string converted;
    const Conversion conversion = Convert(html, "utf-8", charset, &converted);
    if (conversion == Conversion::kUnknownCharset)
        return Edit::Leave(kUnknown);
    Decoded body = Decode(part.encoding, part.body);
    if (conversion != Conversion::kDone || converted != html) {
        std::string utf8;
        if (!body.clean)
            return Edit::Leave(kGuess);
        if (const char* reason = BodyAsUtf8(part, body.bytes, &utf8))
            return Edit::Leave(reason);
        body = {};  // it may be large
        if (part.encoding != Encoding::kBase64)
            utf8 = WithLineEnds(utf8, part.eol);
        const std::size_t at = HtmlPlace(utf8).at;
        return RewritePart(part, InsertDecoded(part, std::move(utf8), at, html), true);
    }
    const Place place = HtmlPlace(body.bytes);
    if (place.tag.empty()) {
        body = {};
        return Append(part, html);
    }
    if (part.encoding == Encoding::kQuotedPrintable)
        return InsertQuoted(part, std::move(body), place, html);
    const std::string lines =
        Gap(part.body.substr(0, place.at), false, part.eol) + WithLineEnds(html, part.eol);
    if (part.encoding != Encoding::kBase64 && !HasLongLine(lines))
        return InsertRaw(part, place.at, lines);
    if (!body.clean)
        return Edit::Leave(kGuess);
    return RewritePart(part, InsertDecoded(part, std::move(body.bytes), place.at, html), false);
}

}  // namespace dl
