// Any bytes as a server's replies, given at once and in pieces: both must be read alike, and what
// is kept must stay within its bounds. The first byte is the size of the pieces.
//
//     build/fuzz/bin/smtp_reply_fuzz CORPUS
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/smtp/reply_parser.h"

namespace
{

using dl::smtp::Reply;
using dl::smtp::ReplyParser;

std::string Read(std::string_view bytes, std::size_t piece)
{
    ReplyParser parser;
    std::string out;
    while (!bytes.empty()) {
        parser.Add(bytes.substr(0, piece));
        bytes.remove_prefix(std::min(piece, bytes.size()));
        for (;;) {
            Reply reply;
            const ReplyParser::Result result = parser.Next(&reply);
            if (result == ReplyParser::Result::kMalformed)
                return out + "malformed";
            if (result == ReplyParser::Result::kMore)
                break;
            if (reply.code < 200 || reply.code > 599 || reply.enhanced.size() > 9 ||
                reply.text.size() > dl::smtp::kMaxReplyText + 1)
                std::abort();
            out += std::to_string(reply.code) + "|" + reply.enhanced + "|" + reply.text + ";";
        }
    }
    return out + (parser.Empty() ? "" : "begun");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (Read(bytes, bytes.size() + 1) != Read(bytes, data[0] + 1U))
        std::abort();
    return 0;
}
