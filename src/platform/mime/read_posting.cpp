#include "platform/mime/read_posting.h"

#include <algorithm>
#include <functional>

#include "platform/address/address.h"
#include "platform/mime/encodings.h"
#include "platform/mime/html_text.h"
#include "platform/mime/posting_private.h"

namespace dl
{

struct PostingFile::Parts {
    MimeMessagePtr message;
    std::vector<const MimePart*> attachments;  // the message's
};

namespace
{

std::string TypeOf(const MimePart& part)
{
    if (part.type && part.subtype)
        return LowerCase(*part.type + "/" + *part.subtype);
    GMimeContentType* type = g_mime_object_get_content_type(part.object);
    char* text = type ? g_mime_content_type_get_mime_type(type) : nullptr;
    std::string result = text ? LowerCase(text) : "text/plain";
    g_free(text);
    return result;
}

std::string FileName(const MimePart& part)
{
    return GMIME_IS_PART(part.object)
               ? ReadableText(g_mime_part_get_filename(GMIME_PART(part.object)))
               : "";
}

std::string Parameter(const MimePart& part, const char* name)
{
    return LowerCase(ReadableText(g_mime_object_get_content_type_parameter(part.object, name)));
}

bool IsBodyText(const MimePart& part, const std::string& type)
{
    const char* disposition = g_mime_object_get_disposition(part.object);
    return (type == "text/plain" || type == "text/html") && FileName(part).empty() &&
           !(disposition && EqualNoCase(disposition, "attachment"));
}

// The first kMaxTextBytes of the decoded body; `cut` says whether there is more.
std::string ReadBody(const MimePart& part, bool* cut)
{
    BodyReader body(part);
    std::string bytes;
    while (bytes.size() <= Posting::kMaxTextBytes) {
        const auto block = body.Next();
        if (!block)
            break;
        bytes.append(*block);
    }
    *cut = bytes.size() > Posting::kMaxTextBytes;
    if (*cut)
        bytes.resize(
            std::min(bytes.rfind('\n', Posting::kMaxTextBytes) + 1, Posting::kMaxTextBytes));
    if (*cut && bytes.empty())
        *cut = false;  // no line end in all of it: nothing to show
    return bytes;
}

std::string UnixLines(std::string_view text)
{
    std::string out;
    out.reserve(text.size() + 1);
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\r')
            out += text[i];
        else if (i + 1 == text.size() || text[i + 1] != '\n')
            out += '\n';
    }
    if (!out.empty() && out.back() != '\n')
        out += '\n';
    return out;
}

std::size_t QuoteDepth(std::string_view line)
{
    return std::min(line.find_first_not_of('>'), line.size());
}

// Joins the lines of format=flowed paragraphs (RFC 3676).
std::string Unflow(std::string_view text, bool delete_blank)
{
    std::string out;
    bool open = false;
    std::size_t depth_before = 0;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        const std::size_t depth = QuoteDepth(line);
        line.remove_prefix(depth);
        if (line.starts_with(' '))  // stuffed
            line.remove_prefix(1);
        const bool signature = line == "-- ";
        if (open && (depth != depth_before || signature)) {
            out += '\n';
            open = false;
        }
        if (!open && depth > 0)
            out += std::string(depth, '>') + " ";
        const bool flowed = line.ends_with(' ') && !signature;
        if (flowed && delete_blank)
            line.remove_suffix(1);
        out += line;
        open = flowed;
        depth_before = depth;
        if (!open)
            out += '\n';
    }
    return open ? out + "\n" : out;
}

PostingText ReadText(const MimePart& part, const std::string& type)
{
    PostingText result;
    const std::string bytes = ReadBody(part, &result.cut);
    result.text = UnixLines(DecodeForReading(bytes, Parameter(part, "charset")));
    result.from_html = type == "text/html";
    if (result.from_html)
        result.text = HtmlToText(result.text);
    else if (Parameter(part, "format") == "flowed")
        result.text = Unflow(result.text, Parameter(part, "delsp") == "yes");
    return result;
}

// Walks the parts of a message and takes what its readers want.
class Collector
{
 public:
    Collector(Posting* posting, std::vector<const MimePart*>* attachments)
        : posting_(*posting), attachments_(*attachments)
    {
    }

    // `texts`: whether body text is wanted; without it only attachments are taken.
    void Take(const MimePart& part, bool texts)
    {
        if (GMIME_IS_MULTIPART(part.object)) {
            if (part.parts.empty() && g_mime_multipart_get_count(GMIME_MULTIPART(part.object)) > 0)
                ++posting_.more_parts;  // deeper than the tree goes
            if (TypeOf(part) == "multipart/alternative" && texts)
                TakeAlternative(part);
            else
                for (const auto& child : part.parts)
                    Take(*child, texts);
            return;
        }
        const std::string type = TypeOf(part);
        if (!IsBodyText(part, type))
            Attach(part, type);
        else if (texts)
            TakeText(part, type);
    }

 private:
    // Plain text that says something is what a reader gets, else the last readable kind.
    void TakeAlternative(const MimePart& part)
    {
        const MimePart* chosen = nullptr;
        for (const char* type : {"text/plain", "text/html"}) {
            for (const auto& child : part.parts)
                if (!chosen && Offers(*child, type, 0))
                    chosen = child.get();
        }
        for (const auto& child : part.parts)
            Take(*child, child.get() == chosen);
    }

    // Looks a few levels deep only, as each level above looks again.
    static bool Offers(const MimePart& part, const std::string& wanted, int depth)
    {
        constexpr int kMaxLook = 4;
        if (!GMIME_IS_MULTIPART(part.object)) {
            const std::string type = TypeOf(part);
            return type == wanted && IsBodyText(part, type) &&
                   ReadText(part, type).text.find_first_not_of(" \t\n") != std::string::npos;
        }
        return depth < kMaxLook &&
               std::any_of(part.parts.begin(), part.parts.end(),
                           [&](const auto& child) { return Offers(*child, wanted, depth + 1); });
    }

    void TakeText(const MimePart& part, const std::string& type)
    {
        if (posting_.texts.size() >= Posting::kMaxTexts) {
            Attach(part, type);
            return;
        }
        PostingText text = ReadText(part, type);
        if (text.cut || (text.text.empty() && LeafSize(part) > 0))
            Attach(part, type);
        if (text.text.find_first_not_of(" \t\n") != std::string::npos)
            posting_.texts.push_back(std::move(text));
    }

    static std::int64_t LeafSize(const MimePart& part)
    {
        const auto range = LeafBody(part);
        constexpr auto kMax = static_cast<std::int64_t>(Posting::kMaxTextBytes);
        return range && range->to - range->from > kMax ? range->to - range->from : 0;
    }

    void Attach(const MimePart& part, const std::string& type)
    {
        if (attachments_.size() >= Posting::kMaxAttachments) {
            ++posting_.more_parts;
            return;
        }
        posting_.attachments.push_back({FileName(part), type});
        attachments_.push_back(&part);
    }

    Posting& posting_;
    std::vector<const MimePart*>& attachments_;
};

std::string Identity(const Posting& posting)
{
    if (!posting.message_id.empty())
        return Sha256Hex(posting.message_id);
    std::string all = posting.from.name + "\n" + posting.from.address + "\n" + posting.subject +
                      "\n" + std::to_string(posting.date.value_or(0)) + "\n";
    for (const PostingText& text : posting.texts)
        all += text.text;
    return Sha256Hex(all);
}

}  // namespace

PostingFile::PostingFile() : parts_(std::make_unique<Parts>()) {}
PostingFile::~PostingFile() = default;

std::unique_ptr<PostingFile> PostingFile::Read(const std::string& path)
{
    std::unique_ptr<PostingFile> file(new PostingFile);
    if (MimeParseMessage(path, 1, &file->parts_->message) != 0)
        return nullptr;
    const MimeMessage& message = *file->parts_->message;
    Posting& posting = file->posting_;
    ReadPostingHeader(message, &posting);
    Collector(&posting, &file->parts_->attachments).Take(*message.top, true);
    posting.identity = Identity(posting);
    return message.file.Failed() ? nullptr : std::move(file);
}

bool PostingFile::WriteAttachment(std::size_t index, FileWriter* out) const
{
    if (index >= parts_->attachments.size())
        return false;
    BodyReader body(*parts_->attachments[index]);
    while (const auto block = body.Next())
        if (!out->Write(*block))
            return false;
    return !body.Failed();
}

}  // namespace dl
