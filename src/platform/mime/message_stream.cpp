#include <algorithm>

#include "platform/mime/message_stream_private.h"

namespace dl
{
namespace
{

struct MessageStream {
    GMimeStream base;
    const RawFile* file;
};

const RawFile& FileOf(GMimeStream* stream)
{
    return *reinterpret_cast<MessageStream*>(stream)->file;
}

gint64 EndOf(GMimeStream* stream)
{
    const gint64 size = FileOf(stream).Size();
    return stream->bound_end < 0 ? size : std::min<gint64>(stream->bound_end, size);
}

ssize_t ReadStream(GMimeStream* stream, char* bytes, std::size_t size)
{
    const gint64 left = std::max<gint64>(EndOf(stream) - stream->position, 0);
    const std::size_t wanted = std::min(size, static_cast<std::size_t>(left));
    if (!FileOf(stream).Read(stream->position, bytes, wanted))
        return -1;
    stream->position += static_cast<gint64>(wanted);
    return static_cast<ssize_t>(wanted);
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

GMimeStream* MakeStream(const RawFile& file, gint64 begin, gint64 end);

GMimeStream* MakeSubstream(GMimeStream* stream, gint64 begin, gint64 end)
{
    return MakeStream(FileOf(stream), begin, end);
}

void InitClass(gpointer type, gpointer /*data*/)
{
    auto* methods = static_cast<GMimeStreamClass*>(type);
    methods->read = ReadStream;
    methods->write = RefuseWrite;
    methods->flush = DoNothing;
    methods->close = DoNothing;  // the file belongs to the message
    methods->reset = DoNothing;
    methods->eos = IsAtEnd;
    methods->seek = Seek;
    methods->tell = Tell;
    methods->length = Length;
    methods->substream = MakeSubstream;
}

GMimeStream* MakeStream(const RawFile& file, gint64 begin, gint64 end)
{
    static const GType kType = g_type_register_static_simple(
        GMIME_TYPE_STREAM, "DlMessageStream", sizeof(GMimeStreamClass), InitClass,
        sizeof(MessageStream), nullptr, static_cast<GTypeFlags>(0));
    auto* stream = static_cast<MessageStream*>(g_object_new(kType, nullptr));
    stream->file = &file;
    g_mime_stream_construct(&stream->base, begin, end);
    return &stream->base;
}

}  // namespace

GMimeStream* NewMessageStream(const RawFile& file)
{
    return MakeStream(file, 0, -1);
}

}  // namespace dl
