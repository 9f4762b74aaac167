#include "platform/address/utf8.h"
#include "platform/mime/disclaimer_private.h"

namespace dl
{

namespace
{

// The value of a Content-Type header with its charset parameter set to utf-8, all others kept.
// Empty when it would hold a control character.
std::string ContentTypeAsUtf8(const std::string& value, const std::string& eol)
{
    const GObjectPtr<GMimeContentType> type(g_mime_content_type_parse(nullptr, value.c_str()));
    g_mime_content_type_set_parameter(type.get(), "charset", "utf-8");
    char* encoded = g_mime_content_type_encode(type.get(), nullptr);
    std::string text = encoded ? encoded : "";
    g_free(encoded);
    while (text.ends_with('\n'))
        text.pop_back();
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const bool fold = byte == '\n' && text[i + 1] == '\t';
        if ((byte < ' ' && byte != '\t' && !fold) || byte >= 127)
            return "";
    }
    return WithLineEnds(text, eol);
}

// Puts `name: value` in the place of the field, or at the end of the header: `added`.
void SetField(const TextPart& part, const char* name, const std::string& value, Edit* edit,
              std::string* added)
{
    const HeaderField* field = part.header.Find(name);
    const std::string line = (field ? field->name : name) + ":" + value + part.eol;
    if (field)
        edit->splices.push_back({field->from, field->to, line});
    else
        *added += line;
}

}  // namespace

Edit RewritePart(const TextPart& part, std::string bytes, bool utf8)
{
    Encoding encoding = part.encoding;
    if (encoding == Encoding::k7Bit || (encoding == Encoding::k8Bit && HasLongLine(bytes)))
        encoding = Encoding::kQuotedPrintable;
    Edit edit;
    std::string added;
    if (part.top && !part.header.Find("MIME-Version") && (utf8 || encoding != part.encoding))
        added = "MIME-Version: 1.0" + part.eol;
    if (utf8) {
        const HeaderField* field = part.header.Find("Content-Type");
        const std::string type = ContentTypeAsUtf8(field ? field->value : "text/plain", part.eol);
        if (type.empty())
            return Edit::Leave("its Content-Type cannot be written again");
        SetField(part, "Content-Type", type, &edit, &added);
    }
    if (encoding != part.encoding)
        SetField(part, "Content-Transfer-Encoding", std::string(" ") + EncodingName(encoding),
                 &edit, &added);
    if (edit.splices.size() == 2 && edit.splices[1].from < edit.splices[0].from)
        std::swap(edit.splices[0], edit.splices[1]);
    if (!added.empty())
        edit.splices.push_back({part.header.end, part.header.end, added});
    edit.splices.push_back({part.body_start,
                            part.body_start + static_cast<std::int64_t>(part.body.size()),
                            Encode(encoding, std::move(bytes), part.eol)});
    return edit;
}

const char* BodyAsUtf8(const TextPart& part, const std::string& decoded, std::string* utf8)
{
    if (decoded.find("-----BEGIN PGP ") != std::string::npos)
        return "it is signed inline and its charset would change";
    std::string charset = part.charset.empty() ? "us-ascii" : part.charset;
    if (charset == "us-ascii" &&
        IsUtf8(decoded))  // what the sender forgot to say; no other text looks like it
        charset = "utf-8";
    if (charset == "utf-16" && !decoded.starts_with("\xFF\xFE") && !decoded.starts_with("\xFE\xFF"))
        return "its utf-16 text does not say its byte order";
    // Readers take the C1 controls of Latin-1, which no text has, for the Windows characters that
    // they mostly are.
    if (charset == "iso-8859-1" &&
        decoded.find_first_of(
            "\x80\x82\x83\x84\x85\x86\x87\x88\x89\x8A\x8B\x8C\x8E\x91\x92\x93\x94\x95\x96\x97"
            "\x98\x99\x9A\x9B\x9C\x9E\x9F") != std::string::npos)
        charset = "windows-1252";
    switch (Convert(decoded, charset, "utf-8", utf8)) {
        case Conversion::kUnknownCharset:
            return "its charset is not known";
        case Conversion::kDoesNotFit:
            return "its text is not of the charset that it names";
        case Conversion::kDone:
            break;
    }
    return nullptr;
}

}  // namespace dl
