#include "platform/smtp/reply_parser.h"

#include "tests/support/fixture.h"

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

TEST(ReplyParser, ReadsRepliesHoweverTheyArrive)
{
    for (const auto& row : testing::ReadTable("tables/mail.txt", "replies"))
        for (const std::size_t piece : {std::size_t{1}, std::size_t{3}, std::size_t{1000}}) {
            SCOPED_TRACE(row.at(0));
            EXPECT_EQ(Read(row.at(1), piece), row.at(2)) << piece;
        }
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
