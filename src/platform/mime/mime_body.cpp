#include <algorithm>

#include "platform/files/files.h"
#include "platform/mime/gmime_private.h"
#include "platform/mime/raw_bytes.h"

namespace dl
{

namespace
{

constexpr std::int64_t kBlock = 16384;

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
        return BehindEmptyLine(message.file, 0, message.file.Size());
    if (const std::int64_t header = FirstHeader(part.object); header >= 0)
        return BehindEmptyLine(message.file, header, message.file.Size());
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
    ByteRange range{RawBegin(part), message.file.Size()};
    if (range.from < 0)
        return std::nullopt;
    std::vector<std::string> boundaries;
    for (const MimePart* above = part.parent; above; above = above->parent)
        boundaries.push_back(Boundary(*above));
    if (boundaries.empty())
        return range;
    range.to = FindDelimiter(message.file, range.from, range.to, boundaries);
    std::string before;
    if (range.to < message.file.Size() &&
        message.file.ReadAt(std::max(range.to - 2, range.from), range.to, &before))
        range.to -= before.ends_with("\r\n") ? 2 : before.ends_with('\n') ? 1 : 0;
    return range;
}

// Copies the wanted bytes of the body into `out`.
bool CopyBody(BodyReader* body, std::int64_t from, std::int64_t length, FileWriter* out)
{
    std::int64_t skip = std::max<std::int64_t>(from, 0);
    for (std::int64_t left = length; left != 0;) {
        const auto block = body->Next();
        if (!block)
            break;
        const auto size = static_cast<std::int64_t>(block->size());
        const std::int64_t dropped = std::min(skip, size);
        skip -= dropped;
        std::int64_t taken = size - dropped;
        if (left >= 0) {
            taken = std::min(taken, left);
            left -= taken;
        }
        if (!out->Write(
                block->substr(static_cast<std::size_t>(dropped), static_cast<std::size_t>(taken))))
            return false;
    }
    return !body->Failed();
}

}  // namespace

std::optional<ByteRange> LeafBody(const MimePart& part)
{
    GMimeDataWrapper* content =
        GMIME_IS_PART(part.object) ? g_mime_part_get_content(GMIME_PART(part.object)) : nullptr;
    const GMimeStream* stream = content ? g_mime_data_wrapper_get_stream(content) : nullptr;
    if (!stream || stream->bound_start < 0)
        return std::nullopt;
    const std::int64_t end = stream->bound_end < 0 ? part.message->file.Size() : stream->bound_end;
    return ByteRange{stream->bound_start, std::max<std::int64_t>(end, stream->bound_start)};
}

BodyReader::BodyReader(const MimePart& part)
    : file_(part.message->file), range_(GMIME_IS_PART(part.object) ? LeafBody(part) : RawBody(part))
{
    if (GMIME_IS_PART(part.object))
        decoder_.reset(g_mime_filter_basic_new(
            g_mime_part_get_content_encoding(GMIME_PART(part.object)), FALSE));
}

std::optional<std::string_view> BodyReader::Next()
{
    while (range_ && !done_) {
        const std::int64_t end = std::min(range_->to, range_->from + kBlock);
        if (!file_.ReadAt(range_->from, end, &block_))
            break;
        range_->from = std::max(range_->from, end);
        done_ = range_->from >= range_->to;
        if (const std::string_view bytes = Decode(done_); !bytes.empty())
            return bytes;
    }
    return std::nullopt;
}

std::string_view BodyReader::Decode(bool last)
{
    if (!decoder_)
        return block_;
    char* bytes = nullptr;
    std::size_t size = 0;
    std::size_t room = 0;
    const auto step = last ? g_mime_filter_complete : g_mime_filter_filter;
    step(decoder_.get(), block_.data(), block_.size(), 0, &bytes, &size, &room);
    return {bytes, size};
}

std::string MimeGetBody(const MimePart* part, std::int64_t from, std::int64_t length)
{
    if (!part)
        return "";
    BodyReader body(*part);
    std::string name = body.Failed() ? "" : KVTGetTempFileName(nullptr, "dl");
    if (name.empty())
        return name;
    FileWriter out(name, "wb");
    const bool copied = out.IsOpen() && CopyBody(&body, from, length, &out);
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
