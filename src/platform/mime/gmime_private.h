// The parsed message behind mime.h, for the files of this folder only.
//
// A MimeMessage owns GMime's tree, the open file and a tree of MimeParts over it. Bodies stay in
// the file: GMime knows their offsets, and every reader here reads the file. The tree stops at
// kMaxDepth; a deeper part has no sub-parts here, whatever the message says.
#pragma once

#include <gmime/gmime.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/mime/message_stream_private.h"
#include "platform/mime/mime.h"
#include "platform/mime/raw_bytes.h"

namespace dl
{

template <typename T>
struct GObjectDeleter {
    void operator()(T* object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectDeleter<T>>;

inline constexpr int kMaxDepth = 100;

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
    explicit MimeMessage(const std::string& path)
        : file(path),
          bounded(file.Size(), [this](std::int64_t from, char* bytes, std::size_t size) {
              return file.Read(from, bytes, size);
          })
    {
    }

    RawFile file;            // outlives all that reads it
    BoundedMessage bounded;  // what the parser sees of it
    GObjectPtr<GMimeMessage> gmime;
    double version = 0;
    std::unique_ptr<MimePart> top;
};

// Starts GMime unless it runs.
void StartGMime();
// Null for an empty message and for one with more header fields or parts than memory should be
// spent on.
[[nodiscard]] GObjectPtr<GMimeMessage> ParseStream(GMimeStream* stream);

struct ByteRange {
    std::int64_t from = 0;
    std::int64_t to = 0;
};
// The raw body of a leaf, without the line end that belongs to the boundary.
[[nodiscard]] std::optional<ByteRange> LeafBody(const MimePart& part);

// Reads the body of a part with its transfer encoding undone, of a multipart or message part the
// raw body. The end of a body and an error are different things: after the last block, Failed()
// says which of them it was.
class BodyReader
{
 public:
    explicit BodyReader(const MimePart& part);

    // The next bytes, at least one, valid until the next call; none at the end and on an error.
    [[nodiscard]] std::optional<std::string_view> Next();
    // Whether the place of the body is not known, or the file could not be read.
    [[nodiscard]] bool Failed() const { return !range_ || file_.Failed(); }

 private:
    std::string_view Decode(bool last);

    const RawFile& file_;
    std::optional<ByteRange> range_;  // what has not been read yet
    GObjectPtr<GMimeFilter> decoder_;
    std::string block_;
    bool done_ = false;
};
// The boundary of a multipart; empty when it has none.
[[nodiscard]] std::string Boundary(const MimePart& part);

}  // namespace dl
