// GMime's parser, stopped before a message of many small pieces makes it use up the memory.

#include "platform/mime/gmime_private.h"

namespace dl
{
namespace
{

// A header field takes about 500 bytes, a part with its header up to 2,700. A larger message may
// have more of both.
constexpr std::int64_t kMaxHeaders = 20'000;
constexpr std::int64_t kBytesPerHeader = 200;
constexpr std::int64_t kMaxObjects = 5'000;
constexpr std::int64_t kBytesPerObject = 1'000;

// What a message may still have. The parser finds the end of its input when that is used up.
struct ParseLimits {
    explicit ParseLimits(GMimeStream* from)
        : stream(from),
          headers(kMaxHeaders + g_mime_stream_length(from) / kBytesPerHeader),
          objects(kMaxObjects + g_mime_stream_length(from) / kBytesPerObject)
    {
    }

    void Use(std::int64_t* count)
    {
        if (--*count < 0)
            g_mime_stream_set_bounds(stream, 0, stream->position);
    }
    [[nodiscard]] bool Exceeded() const { return headers < 0 || objects < 0; }

    GMimeStream* stream;
    std::int64_t headers;
    std::int64_t objects;
};

thread_local ParseLimits* parsing = nullptr;  // in this thread

void CountHeader(GMimeParser* /*parser*/, const char* /*name*/, const char* /*value*/,
                 gint64 /*offset*/, gpointer /*data*/)
{
    parsing->Use(&parsing->headers);
}

using Constructor = GObject* (*)(GType type, guint count, GObjectConstructParam* parameters);
Constructor make_header_list = nullptr;

// The parser tells of header fields, but not of parts. Each message and part, and nothing else, has
// one list of header fields, also when that is empty.
GObject* CountObject(GType type, guint count, GObjectConstructParam* parameters)
{
    if (parsing)
        parsing->Use(&parsing->objects);
    return make_header_list(type, count, parameters);
}

bool Start()
{
    g_mime_init();
    auto* lists = static_cast<GObjectClass*>(g_type_class_ref(GMIME_TYPE_HEADER_LIST));
    make_header_list = lists->constructor;
    lists->constructor = CountObject;
    return true;
}

}  // namespace

void StartGMime()
{
    static const bool kStarted = Start();
    (void)kStarted;
}

GObjectPtr<GMimeMessage> ParseStream(GMimeStream* stream)
{
    ParseLimits limits(stream);
    const GObjectPtr<GMimeParser> parser(g_mime_parser_new_with_stream(stream));
    g_mime_parser_set_header_regex(parser.get(), ".", CountHeader, nullptr);
    parsing = &limits;
    GObjectPtr<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), nullptr));
    parsing = nullptr;
    return limits.Exceeded() ? nullptr : std::move(message);
}

}  // namespace dl
