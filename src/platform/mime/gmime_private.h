// The parsed message behind mime.h, for the files of this folder only.
//
// A MimeMessage owns GMime's tree, the open file and a tree of MimeParts over it. Bodies stay in
// the file: GMime knows their offsets, and every reader here uses pread on the same descriptor. The
// tree stops at kMaxDepth; a deeper part has no sub-parts here, whatever the message says.
#pragma once

#include <gmime/gmime.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/mime/mime.h"

namespace dl
{

template <typename T>
struct GObjectDeleter {
    void operator()(T* object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectDeleter<T>>;

inline constexpr int kMaxDepth = 100;
// A part or a header costs up to 1.3 KB of memory, and a message could hold millions of either.
inline constexpr std::int64_t kMaxDelimiterLines = 100'000;
inline constexpr std::int64_t kMaxHeaders = 100'000;

// Failures of MimeParseMessage.
inline constexpr int kMimeCannotRead = -1;
inline constexpr int kMimeNoMessage = -2;  // empty, or above one of the bounds

class MimePart
{
 public:
    const MimeMessage* message = nullptr;
    const MimePart* parent = nullptr;
    GMimeObject* object = nullptr;  // the message's
    std::optional<std::string> type;
    std::optional<std::string> subtype;
    std::vector<std::unique_ptr<MimePart>> parts;
};

class MimeMessage
{
 public:
    GObjectPtr<GMimeStream> stream;  // closes `fd`
    GObjectPtr<GMimeMessage> gmime;
    int fd = -1;
    std::int64_t size = 0;
    double version = 0;
    std::unique_ptr<MimePart> top;
};

// Starts GMime unless it runs.
void StartGMime();
// Null for an empty message and for one with too many headers.
[[nodiscard]] GObjectPtr<GMimeMessage> ParseStream(GMimeStream* stream);

struct ByteRange {
    std::int64_t from = 0;
    std::int64_t to = 0;
};
// The raw body of a leaf, without the line end that belongs to the boundary.
[[nodiscard]] std::optional<ByteRange> LeafBody(const MimePart& part);
// The body of `part` as a stream that gives it with its transfer encoding undone, of a multipart or
// message part the raw body; null when its place is not known.
[[nodiscard]] GObjectPtr<GMimeStream> OpenBody(const MimePart& part);
// The boundary of a multipart; empty when it has none.
[[nodiscard]] std::string Boundary(const MimePart& part);

}  // namespace dl
