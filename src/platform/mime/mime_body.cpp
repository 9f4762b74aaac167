#include <algorithm>

#include "platform/files/files.h"
#include "platform/mime/gmime_private.h"
#include "platform/mime/raw_bytes.h"

namespace dl
{

namespace
{

// Where the first header line of `object` stands; -1 when it has none in the file.
std::int64_t FirstHeader(GMimeObject* object)
{
    GMimeHeaderList* headers = object ? g_mime_object_get_header_list(object) : nullptr;
    if (!headers || g_mime_header_list_get_count(headers) == 0)
        return -1;
    return g_mime_header_get_offset(g_mime_header_list_get_header_at(headers, 0));
}

// Where the raw body of a multipart or message part begins; -1 when that is not known.
std::int64_t RawBegin(const MimePart& part)
{
    const MimeMessage& message = *part.message;
    if (!part.parent)
        return BehindEmptyLine(message.fd, 0, message.size);
    if (const std::int64_t header = FirstHeader(part.object); header >= 0)
        return BehindEmptyLine(message.fd, header, message.size);
    // A part of a digest needs no header: its body begins where the message in it does.
    if (!GMIME_IS_MESSAGE_PART(part.object))
        return -1;
    GMimeMessage* inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(part.object));
    return inner ? FirstHeader(GMIME_OBJECT(inner)) : -1;
}

// The raw body of a multipart or message part, up to the next delimiter line of a part around it.
std::optional<ByteRange> RawBody(const MimePart& part)
{
    const MimeMessage& message = *part.message;
    ByteRange range{RawBegin(part), message.size};
    if (range.from < 0)
        return std::nullopt;
    std::vector<std::string> boundaries;
    for (const MimePart* above = part.parent; above; above = above->parent)
        boundaries.push_back(Boundary(*above));
    if (boundaries.empty())
        return range;
    range.to = FindDelimiter(message.fd, range.from, message.size, boundaries);
    std::string before;
    if (range.to < message.size &&
        ReadAt(message.fd, std::max(range.to - 2, range.from), range.to, &before))
        range.to -= before.ends_with("\r\n") ? 2 : before.ends_with('\n') ? 1 : 0;
    return range;
}

// Copies the wanted bytes of `source` into `out`.
bool CopyBody(GMimeStream* source, std::int64_t from, std::int64_t length, FileWriter* out)
{
    char block[16384];
    std::int64_t skip = std::max<std::int64_t>(from, 0);
    for (std::int64_t left = length; left != 0;) {
        const ssize_t got = g_mime_stream_read(source, block, sizeof block);
        if (got <= 0)
            break;
        const std::int64_t dropped = std::min<std::int64_t>(skip, got);
        skip -= dropped;
        std::int64_t taken = got - dropped;
        if (left >= 0) {
            taken = std::min(taken, left);
            left -= taken;
        }
        if (!out->Write({block + dropped, static_cast<std::size_t>(taken)}))
            return false;
    }
    return true;
}

}  // namespace

std::optional<ByteRange> LeafBody(const MimePart& part)
{
    GMimeDataWrapper* content =
        GMIME_IS_PART(part.object) ? g_mime_part_get_content(GMIME_PART(part.object)) : nullptr;
    const GMimeStream* stream = content ? g_mime_data_wrapper_get_stream(content) : nullptr;
    if (!stream || stream->bound_start < 0)
        return std::nullopt;
    const std::int64_t end = stream->bound_end < 0 ? part.message->size : stream->bound_end;
    return ByteRange{stream->bound_start, std::max<std::int64_t>(end, stream->bound_start)};
}

GObjectPtr<GMimeStream> OpenBody(const MimePart& part)
{
    const std::optional<ByteRange> range =
        GMIME_IS_PART(part.object) ? LeafBody(part) : RawBody(part);
    if (!range)
        return nullptr;
    GObjectPtr<GMimeStream> raw(g_mime_stream_substream(part.message->stream.get(), range->from,
                                                        std::max(range->from, range->to)));
    g_mime_stream_reset(raw.get());
    if (!GMIME_IS_PART(part.object))
        return raw;
    GObjectPtr<GMimeStream> decoded(g_mime_stream_filter_new(raw.get()));
    const GObjectPtr<GMimeFilter> decoder(
        g_mime_filter_basic_new(g_mime_part_get_content_encoding(GMIME_PART(part.object)), FALSE));
    g_mime_stream_filter_add(GMIME_STREAM_FILTER(decoded.get()), decoder.get());
    return decoded;
}

std::string MimeGetBody(const MimePart* part, std::int64_t from, std::int64_t length)
{
    const GObjectPtr<GMimeStream> body = part ? OpenBody(*part) : nullptr;
    std::string name = body ? KVTGetTempFileName(nullptr, "dl") : "";
    if (name.empty())
        return name;
    FileWriter out(name, "wb");
    const bool copied = out.IsOpen() && CopyBody(body.get(), from, length, &out);
    if (!out.Close() || !copied)
        MimeFreeFile(&name);
    return name;
}

void MimeFreeFile(std::string* file)
{
    if (!file->empty())
        (void)Files().Remove(
            file->c_str());  // a temporary file that stays is the system's to clean up
    file->clear();
}

}  // namespace dl
