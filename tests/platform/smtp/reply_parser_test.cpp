#include "platform/smtp/reply_parser.h"

#include <gtest/gtest.h>

namespace dl::smtp
{
namespace
{

// All replies as "code|enhanced|text", then "more" or "malformed".
std::string Read(std::string_view bytes, std::size_t piece)
{
    ReplyParser parser;
    std::string out;
    for (std::size_t at = 0; at <= bytes.size(); at += piece) {
        parser.Add(bytes.substr(at, piece));
        Reply reply;
        ReplyParser::Result result = ReplyParser::Result::kReply;
        while ((result = parser.Next(&reply)) == ReplyParser::Result::kReply)
            out += std::to_string(reply.code) + "|" + reply.enhanced + "|" + reply.text + "; ";
        if (result == ReplyParser::Result::kMalformed)
            return out + "malformed";
    }
    return out + (parser.Empty() ? "more" : "begun");
}

struct Row {
    const char* name;
    std::string bytes;
    const char* want;
};

TEST(ReplyParser, ReadsRepliesHoweverTheyArrive)
{
    const std::string nul("250 a\0b\r\n", 9);
    const Row rows[] = {
        {"plain", "250 ok\r\n", "250||ok; more"},
        {"code alone", "250\r\n", "250||; more"},

        {"two at once", "250 a\r\n550 b\r\n", "250||a; 550||b; more"},
        {"line feed alone ends a line", "250 a\n", "250||a; more"},
        {"not ended", "250 a\r", "begun"},
        {"enhanced code", "550 5.1.1 no user\r\n", "550|5.1.1|no user; more"},

        {"enhanced code of another class is text", "250 5.1.1 x\r\n", "250||5.1.1 x; more"},
        {"a number is no enhanced code", "250 2.0 x\r\n", "250||2.0 x; more"},

        {"continued", "250-a\r\n250-SIZE 1\r\n250 b\r\n", "250||a\nSIZE 1\nb; more"},
        {"continued, each with its code", "550-5.7.1 a\r\n550 5.7.1 b\r\n", "550|5.7.1|a\nb; more"},

        {"codes differ", "250-a\r\n251 b\r\n", "malformed"},
        {"not a code", "hello\r\n", "malformed"},

        {"too many digits", "550 5.1234.1 x\r\n", "550||5.1234.1 x; more"},
        {"class 6", "650 a\r\n", "malformed"},
        {"class 1", "150 a\r\n", "malformed"},

        {"no separator", "250ok\r\n", "malformed"},
        {"empty line", "\r\n", "malformed"},
        {"what was good before it counts", "250 a\r\n?\r\n250 b\r\n", "250||a; malformed"},
    };
    for (const Row& row : rows)
        for (const std::size_t piece : {std::size_t{1}, std::size_t{3}, std::size_t{1000}}) {
            SCOPED_TRACE(row.name);
            EXPECT_EQ(Read(row.bytes, piece), row.want) << piece;
        }
    EXPECT_EQ(Read(nul, 2), std::string("250||a\0b; more", 14));
}

TEST(ReplyParser, KeepsABoundedPartOfWhatIsTooLong)
{
    ReplyParser parser;
    Reply reply;
    const std::string line = "550 5.0.0 " + std::string(100'000, 'x');
    for (std::size_t at = 0; at < line.size(); at += 1000) {
        parser.Add(line.substr(at, 1000));
        ASSERT_EQ(parser.Next(&reply), ReplyParser::Result::kMore);
    }
    parser.Add("\r\n250 next\r\n");
    ASSERT_EQ(parser.Next(&reply), ReplyParser::Result::kReply);
    EXPECT_EQ(reply.code, 550);
    EXPECT_EQ(reply.enhanced, "5.0.0");
    EXPECT_EQ(reply.text.size(), kMaxReplyLine - 10);
    ASSERT_EQ(parser.Next(&reply), ReplyParser::Result::kReply);
    EXPECT_EQ(reply.text, "next");

    std::string many;
    for (std::size_t i = 0; i + 1 < kMaxReplyLines; ++i)
        many += "250-" + std::string(100, 'y') + "\r\n";
    parser.Add(many);
    ASSERT_EQ(parser.Next(&reply), ReplyParser::Result::kMore);
    parser.Add("250 end\r\n");
    ASSERT_EQ(parser.Next(&reply), ReplyParser::Result::kReply);
    EXPECT_EQ(reply.text.size(), kMaxReplyText);
    parser.Add(many + "250-\r\n250-\r\n");
    EXPECT_EQ(parser.Next(&reply), ReplyParser::Result::kMalformed);
}

}  // namespace
}  // namespace dl::smtp
