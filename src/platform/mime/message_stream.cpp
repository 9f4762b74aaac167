#include "platform/mime/message_stream_private.h"

#include <algorithm>
#include <cstring>

namespace dl
{
namespace
{

constexpr std::int64_t kBlock = 65'536;

struct MessageStream {
    GMimeStream base;
    BoundedMessage* message;
    gint64 next;  // where the next byte of the message belongs; -1 for a substream
};

MessageStream& Own(GMimeStream* stream)
{
    return *reinterpret_cast<MessageStream*>(stream);
}

gint64 EndOf(GMimeStream* stream)
{
    const gint64 size = Own(stream).message->Size();
    return stream->bound_end < 0 ? size : std::min<gint64>(stream->bound_end, size);
}

ssize_t ReadStream(GMimeStream* stream, char* bytes, std::size_t size)
{
    MessageStream& own = Own(stream);
    const gint64 left = std::max<gint64>(EndOf(stream) - stream->position, 0);
    if (own.next != stream->position)
        return -1;
    const ssize_t got = own.message->Read(bytes, std::min(size, static_cast<std::size_t>(left)));
    own.next = stream->position += std::max<ssize_t>(got, 0);
    return got;
}

ssize_t RefuseWrite(GMimeStream* /*stream*/, const char* /*bytes*/, std::size_t /*size*/)
{
    return -1;
}

int DoNothing(GMimeStream* /*stream*/)
{
    return 0;
}

gboolean IsAtEnd(GMimeStream* stream)
{
    return stream->position >= EndOf(stream);
}

gint64 Seek(GMimeStream* stream, gint64 offset, GMimeSeekWhence whence)
{
    const gint64 base = whence == GMIME_STREAM_SEEK_SET   ? 0
                        : whence == GMIME_STREAM_SEEK_CUR ? stream->position
                                                          : EndOf(stream);
    if (base + offset < stream->bound_start || base + offset > EndOf(stream))
        return -1;
    stream->position = base + offset;
    return stream->position;
}

gint64 Tell(GMimeStream* stream)
{
    return stream->position;
}

gint64 Length(GMimeStream* stream)
{
    return EndOf(stream) - stream->bound_start;
}

GMimeStream* MakeStream(BoundedMessage* message, gint64 next, gint64 begin, gint64 end);

GMimeStream* MakeSubstream(GMimeStream* stream, gint64 begin, gint64 end)
{
    return MakeStream(Own(stream).message, -1, begin, end);
}

void InitClass(gpointer type, gpointer /*data*/)
{
    auto* methods = static_cast<GMimeStreamClass*>(type);
    methods->read = ReadStream;
    methods->write = RefuseWrite;
    methods->flush = DoNothing;
    methods->close = DoNothing;  // there is nothing to close
    methods->reset = DoNothing;
    methods->eos = IsAtEnd;
    methods->seek = Seek;
    methods->tell = Tell;
    methods->length = Length;
    methods->substream = MakeSubstream;
}

GMimeStream* MakeStream(BoundedMessage* message, gint64 next, gint64 begin, gint64 end)
{
    static const GType kType = g_type_register_static_simple(
        GMIME_TYPE_STREAM, "DlMessageStream", sizeof(GMimeStreamClass), InitClass,
        sizeof(MessageStream), nullptr, static_cast<GTypeFlags>(0));
    auto* stream = static_cast<MessageStream*>(g_object_new(kType, nullptr));
    stream->message = message;
    stream->next = next;
    g_mime_stream_construct(&stream->base, begin, end);
    return &stream->base;
}

}  // namespace

// False at the end, on a read error, and when the message is not worth reading on.
bool BoundedMessage::Fill()
{
    buffer_.erase(0, settled_);
    const std::size_t kept = buffer_.size();
    const std::int64_t end = std::min(read_ + kBlock, size_);
    given_ = settled_ = 0;
    if (view_.HasTooManyDashes() || (kept == 0 && end == read_))
        return false;
    buffer_.resize(kept + static_cast<std::size_t>(end - read_));
    failed_ = !reader_(read_, buffer_.data() + kept, buffer_.size() - kept);
    if (failed_)
        return false;
    read_ = end;
    settled_ = view_.Bound(buffer_.data(), buffer_.size(), end == size_);
    return settled_ > 0;
}

ssize_t BoundedMessage::Read(char* bytes, std::size_t size)
{
    if (given_ == settled_ && !Fill())
        return failed_ ? -1 : 0;
    const std::size_t count = std::min(size, settled_ - given_);
    std::memcpy(bytes, buffer_.data() + given_, count);
    given_ += count;
    return static_cast<ssize_t>(count);
}

GMimeStream* NewMessageStream(BoundedMessage* message)
{
    return MakeStream(message, 0, 0, -1);
}

}  // namespace dl
