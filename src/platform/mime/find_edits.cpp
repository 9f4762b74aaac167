#include <algorithm>

#include "platform/address/address.h"
#include "platform/mime/disclaimer_private.h"
#include "platform/mime/raw_bytes.h"

namespace dl
{

namespace
{

// Bytes of all bodies and headers that one message makes us hold.
constexpr std::int64_t kHeldBytes = 3 << 20;
constexpr int kMaxLostHeaders = 10;

// Whether a line of the new text begins with a boundary of a multipart around `part`: the sender
// chose those, and may have chosen a line of the disclaimer.
bool HasBoundary(const MimePart& part, const Edit& edit)
{
    std::vector<std::string> boundaries;
    for (const MimePart* above = part.parent; above; above = above->parent)
        boundaries.push_back(Boundary(*above));
    for (const Splice& splice : edit.splices)
        for (std::string_view rest = splice.bytes; !rest.empty();) {
            if (rest.starts_with("--"))
                for (const std::string& boundary : boundaries)
                    if (rest.substr(2).starts_with(boundary))
                        return true;
            const std::size_t next = rest.find("\n--");
            rest = next == std::string_view::npos ? "" : rest.substr(next + 1);
        }
    return false;
}

class EditFinder
{
 public:
    EditFinder(const MimeMessage& message, const Disclaimers& disclaimers, EditPlan* plan)
        : message_(message), disclaimers_(disclaimers), plan_(plan)
    {
        std::string start;
        const LineScanner::Line first =
            LineScanner(message.file, 0, message.file.Size()).Next().value_or(LineScanner::Line{});
        if (message.file.ReadAt(std::max<std::int64_t>(first.end - 2, 0), first.end, &start))
            eol_ = start == "\r\n" ? "\r\n" : "\n";
    }

    void Walk(const MimePart& part)
    {
        if (GMIME_IS_MULTIPART_SIGNED(part.object) || GMIME_IS_MULTIPART_ENCRYPTED(part.object))
            return;
        if (GMIME_IS_MULTIPART(part.object) && Boundary(part).empty())
            return;  // mail readers disagree on what its parts are
        for (const auto& below : part.parts)
            Walk(*below);
        const std::string* text = WantedText(part);
        if (!text || text->empty())
            return;
        TextPart facts;
        const char* reason = Read(part, static_cast<std::int64_t>(text->size()), &facts);
        Edit edit = reason       ? Edit::Leave(reason)
                    : facts.html ? EditHtml(facts, *text)
                                 : EditPlain(facts, *text);
        if (HasBoundary(part, edit))
            edit = Edit::Leave("a line of its new text would end it");
        if (edit.reason && plan_->unchanged++ == 0)
            plan_->reason = edit.reason;
        for (Splice& splice : edit.splices)
            plan_->splices.push_back(std::move(splice));
    }

 private:
    // The disclaimer that belongs into `part`; null for a part that is no body text.
    [[nodiscard]] const std::string* WantedText(const MimePart& part) const
    {
        if (!GMIME_IS_PART(part.object) || g_mime_part_get_filename(GMIME_PART(part.object)))
            return nullptr;
        const char* disposition = g_mime_object_get_disposition(part.object);
        if (disposition && !EqualNoCase(disposition, "inline"))
            return nullptr;  // an unknown one is an attachment, RFC 2183, 2.8
        GMimeContentType* type = g_mime_object_get_content_type(part.object);
        if (g_mime_content_type_is_type(type, "text", "plain"))
            return &disclaimers_.text;
        return g_mime_content_type_is_type(type, "text", "html") ? &disclaimers_.html : nullptr;
    }

    // Reads header and body of `part`; the reason why it must stay as it is, or null.
    const char* Read(const MimePart& part, std::int64_t growth, TextPart* facts)
    {
        const std::optional<ByteRange> body = LeafBody(part);
        if (!body)
            return "its body was not found";
        const std::int64_t begin = part.parent ? FindHeader(part, body->from) : 0;
        if (begin < 0)
            return "its header was not found";
        if (message_.bounded.View().ChangedBetween(begin, body->from))
            return "it has header fields beyond all bounds";
        const std::int64_t size = body->to - begin + growth;
        if (held_ + size > kHeldBytes)
            return "it is too large";
        held_ += size;
        std::string header;
        if (!message_.file.ReadAt(begin, body->from, &header) ||
            !message_.file.ReadAt(body->from, body->to, &facts->body))
            return "it cannot be read";
        if (const char* reason = ReadPartHeader(header, begin, &facts->header))
            return reason;
        const HeaderField* encoding = facts->header.Find("Content-Transfer-Encoding");
        const auto known = EncodingFromHeader(encoding ? encoding->value : "");
        if (!known)
            return "its transfer encoding is not known";
        facts->encoding = *known;
        facts->top = !part.parent;
        facts->eol = eol_;
        facts->body_start = body->from;
        ReadType(part, facts);
        return nullptr;
    }

    // A search that fails has read megabytes: not one for each of a hundred thousand parts.
    std::int64_t FindHeader(const MimePart& part, std::int64_t body)
    {
        if (lost_headers_ >= kMaxLostHeaders)
            return -1;
        const std::int64_t begin = HeaderBegin(message_.file, body, Boundary(*part.parent));
        if (begin < 0)
            ++lost_headers_;
        return begin;
    }

    static void ReadType(const MimePart& part, TextPart* facts)
    {
        GMimeContentType* type = g_mime_object_get_content_type(part.object);
        const char* charset = g_mime_content_type_get_parameter(type, "charset");
        const char* format = g_mime_content_type_get_parameter(type, "format");
        facts->html = g_mime_content_type_is_type(type, "text", "html");
        facts->charset = LowerCase(charset ? charset : "");
        facts->charset.resize(
            std::min(facts->charset.size(), facts->charset.find_first_of(" \t(")));
        facts->flowed = !facts->html && format && LowerCase(format) == "flowed";
    }

    const MimeMessage& message_;
    const Disclaimers& disclaimers_;
    EditPlan* plan_;
    std::string eol_ = "\r\n";
    std::int64_t held_ = 0;
    int lost_headers_ = 0;
};

}  // namespace

EditPlan FindEdits(const MimeMessage& message, const Disclaimers& disclaimers)
{
    EditPlan plan;
    EditFinder(message, disclaimers, &plan).Walk(*message.top);
    return plan;
}

}  // namespace dl
