#include "platform/mime/mime.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "platform/mime/gmime_private.h"

namespace dl
{

namespace
{

// Skips blanks, line ends and comments, which may be nested (RFC 5322, 3.2.2).
std::string_view SkipComments(std::string_view text)
{
    int depth = 0;
    std::size_t at = 0;
    for (; at < text.size(); ++at) {
        const char c = text[at];
        if (c == '(')
            ++depth;
        else if (c == ')' && depth > 0)
            --depth;
        else if (c == '\\' && depth > 0)
            ++at;
        else if (depth == 0 && c != ' ' && c != '\t' && c != '\r' && c != '\n')
            break;
    }
    return text.substr(std::min(at, text.size()));
}

std::string_view TakeToken(std::string_view* text)
{
    std::size_t at = 0;
    while (at < text->size()) {
        const char c = (*text)[at];
        if (c <= ' ' || c == 127 ||
            std::string_view("()<>@,;:\\\"/[]?=").find(c) != std::string_view::npos)
            break;
        ++at;
    }
    const std::string_view token = text->substr(0, at);
    text->remove_prefix(at);
    return token;
}

// The number of a MIME-Version header: digits "." digits, comments between them (RFC 2045, 4).
double ParseVersion(const char* header)
{
    if (!header)
        return 0;
    std::string bare;
    for (std::string_view rest = SkipComments(header); !rest.empty(); rest = SkipComments(rest)) {
        bare += rest.front();
        rest.remove_prefix(1);
    }
    const std::size_t dot = bare.find('.');
    const bool form =
        bare.size() <= 16 && dot != std::string::npos && dot > 0 && dot + 1 < bare.size() &&
        bare.find_first_not_of("0123456789.") == std::string::npos && bare.rfind('.') == dot;
    double version = 0;
    if (form)
        std::from_chars(bare.data(), bare.data() + bare.size(), version);
    return version;
}

void ReadContentType(MimePart* part)
{
    const char* header = g_mime_object_get_header(part->object, "Content-Type");
    if (!header)
        return;
    std::string_view rest = SkipComments(header);
    const std::string_view type = TakeToken(&rest);
    if (type.empty())
        return;
    part->type = std::string(type);
    rest = SkipComments(rest);
    if (!rest.starts_with('/'))
        return;
    rest = SkipComments(rest.substr(1));
    const std::string_view subtype = TakeToken(&rest);
    if (!subtype.empty())
        part->subtype = std::string(subtype);
}

std::unique_ptr<MimePart> MakePart(const MimeMessage* message, const MimePart* parent,
                                   GMimeObject* object, int depth)
{
    auto part = std::make_unique<MimePart>();
    part->message = message;
    part->parent = parent;
    part->object = object;
    ReadContentType(part.get());
    if (!GMIME_IS_MULTIPART(object) || depth >= kMaxDepth)
        return part;
    GMimeMultipart* multipart = GMIME_MULTIPART(object);
    const int count = g_mime_multipart_get_count(multipart);
    for (int i = 0; i < count; ++i)
        part->parts.push_back(
            MakePart(message, part.get(), g_mime_multipart_get_part(multipart, i), depth + 1));
    return part;
}

}  // namespace

void InitKVTDll(const char* /*module*/)
{
    StartGMime();
}

// GMime cannot be started again after its shutdown, and what it holds ends with the process.
void TerminateKVTDll() {}

std::string Boundary(const MimePart& part)
{
    const char* boundary = g_mime_object_get_content_type_parameter(part.object, "boundary");
    return boundary ? boundary : "";
}

void MimeMessageDeleter::operator()(MimeMessage* message) const
{
    delete message;
}

int MimeParseMessage(const std::string& path, int /*mode*/, MimeMessagePtr* message)
{
    message->reset();
    StartGMime();
    auto parsed = std::make_unique<MimeMessage>(path);
    const RawFile& file = parsed->file;
    if (!file.IsOpen())
        return kMimeCannotRead;
    {
        const GObjectPtr<GMimeStream> stream(NewMessageStream(&parsed->bounded));
        parsed->gmime = ParseStream(stream.get());
    }
    if (file.Failed())
        return kMimeCannotRead;
    if (parsed->bounded.View().HasTooManyDashes())
        return kMimeNoMessage;
    GMimeObject* top = parsed->gmime ? g_mime_message_get_mime_part(parsed->gmime.get()) : nullptr;
    if (!top)
        return kMimeNoMessage;
    parsed->version =
        ParseVersion(g_mime_object_get_header(GMIME_OBJECT(parsed->gmime.get()), "MIME-Version"));
    parsed->top = MakePart(parsed.get(), nullptr, top, 0);
    message->reset(parsed.release());
    return 0;
}

const MimePart* MimeGetMsg(const MimeMessage* message, int index)
{
    return message && index == 0 ? message->top.get() : nullptr;
}

double MimeGetVersion(const MimePart* part)
{
    return part ? part->message->version : 0;
}

const char* MimeGetContentType(const MimePart* part)
{
    return part && part->type ? part->type->c_str() : nullptr;
}

const char* MimeGetContentSubtype(const MimePart* part)
{
    return part && part->subtype ? part->subtype->c_str() : nullptr;
}

std::uint16_t MimeGetPartCount(const MimePart* part)
{
    return part ? static_cast<std::uint16_t>(std::min<std::size_t>(part->parts.size(), 65535)) : 0;
}

const MimePart* MimeGetPart(const MimePart* part, std::uint16_t index)
{
    return index < MimeGetPartCount(part) ? part->parts[index].get() : nullptr;
}

void MimeFreeMessage(MimeMessagePtr message)
{
    message.reset();
}

}  // namespace dl
