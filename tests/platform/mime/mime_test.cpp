#include "platform/mime/mime.h"

#include <clocale>
#include <cstdint>
#include <limits>

#include "platform/files/files.h"
#include "tests/support/fixture.h"

namespace dl
{
namespace
{

using testing::Crlf;

class Mime : public testing::Fixture
{
 protected:
    // The top part of `text`, written with CRLF; null when it cannot be parsed.
    const MimePart* Parse(const std::string& text)
    {
        parsed_ = MimeParseMessage(Write("m.msg", Crlf(text)), 1, &message_);
        return MimeGetMsg(message_.get(), 0);
    }

    static std::string Body(const MimePart* part, std::int64_t from = 0, std::int64_t length = -1)
    {
        std::string file = MimeGetBody(part, from, length);
        if (file.empty())
            return "no file";
        std::string bytes = testing::ReadFile(file);
        MimeFreeFile(&file);
        return bytes;
    }

    MimeMessagePtr message_;
    int parsed_ = 0;
};

std::string Text(const char* text)
{
    return text ? text : "null";
}

TEST_F(Mime, ReadsTheVersionOfTheMessage)
{
    for (const auto& row : testing::ReadTable("tables/mime.txt", "versions")) {
        SCOPED_TRACE(row.at(0));
        const MimePart* top =
            Parse(row.at(0) + "Content-Type: multipart/mixed; boundary=b\n\n--b\n\nx\n--b--\n");
        ASSERT_TRUE(top);
        EXPECT_EQ(MimeGetVersion(top), std::stod(row.at(1)));
        EXPECT_EQ(MimeGetVersion(MimeGetPart(top, 0)), std::stod(row.at(1)));
    }
}

TEST_F(Mime, GivesTypeAndSubtypeAsWritten)
{
    for (const auto& row : testing::ReadTable("tables/mime.txt", "types")) {
        SCOPED_TRACE(row.at(0));
        const MimePart* top = Parse(row.at(0) + "\n\nbody\n");
        ASSERT_TRUE(top);
        EXPECT_EQ(Text(MimeGetContentType(top)), row.at(1));
        EXPECT_EQ(Text(MimeGetContentSubtype(top)), row.at(2));
        EXPECT_EQ(MimeGetPartCount(top), 0);
    }
}

TEST_F(Mime, GivesAPieceOfABody)
{
    EXPECT_EQ(Body(Parse("Content-Transfer-Encoding: x-rot13\n\nfhof\n")), "fhof\r\n");
    EXPECT_EQ(Body(Parse("Content-Type: multipart/mixed\n\nraw\n")), "raw\r\n") << "no boundary";
    const MimePart* top = Parse("Subject: x\n\n0123456789");
    EXPECT_EQ(Body(top, 3, 4), "3456");
    EXPECT_EQ(Body(top, 8, 100), "89");
    EXPECT_EQ(Body(top, 100, -1), "");
    EXPECT_EQ(Body(top, -5, 0), "");
}

TEST_F(Mime, GivesPartsAndTheirBodies)
{
    const MimePart* top = Parse(
        "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=o\n\npre\n--o\n"
        "Content-Type: multipart/alternative; boundary=i\n\n--i\n\nplain\n--i\nContent-Type: "
        "text/html\n"
        "Content-Transfer-Encoding: base64\n\naHRtbA==\n--i--\n--o\nContent-Type: "
        "message/rfc822\n\n"
        "Subject: inner\n\ninner body\n--o--\nepi\n");
    ASSERT_EQ(MimeGetPartCount(top), 2);
    EXPECT_EQ(MimeGetPart(top, 2), nullptr);
    EXPECT_EQ(Body(top).substr(0, 10), "pre\r\n--o\r\n");
    EXPECT_EQ(Body(top).substr(Body(top).size() - 12), "--o--\r\nepi\r\n");
    const MimePart* inner = MimeGetPart(top, 0);
    ASSERT_EQ(MimeGetPartCount(inner), 2);
    EXPECT_EQ(Body(inner).substr(0, 12), "--i\r\n\r\nplain");
    EXPECT_EQ(Body(inner).substr(Body(inner).size() - 7), "\r\n--i--");
    EXPECT_EQ(Body(MimeGetPart(inner, 0)), "plain");
    EXPECT_EQ(Text(MimeGetContentType(MimeGetPart(inner, 0))), "null");
    EXPECT_EQ(Body(MimeGetPart(inner, 1)), "html");
    const MimePart* letter = MimeGetPart(top, 1);
    EXPECT_EQ(MimeGetPartCount(letter), 0);
    EXPECT_EQ(Text(MimeGetContentSubtype(letter)), "rfc822");
    EXPECT_EQ(Body(letter), "Subject: inner\r\n\r\ninner body");
}

TEST_F(Mime, GivesTheBodyOfADigestedMessageWithoutPartHeader)
{
    const MimePart* top = Parse(
        "Content-Type: multipart/digest; boundary=d\n\n--d\n\nSubject: one\n\nfirst\n--d--\n");
    ASSERT_EQ(MimeGetPartCount(top), 1);
    EXPECT_EQ(Body(MimeGetPart(top, 0)), "Subject: one\r\n\r\nfirst");
}

TEST_F(Mime, SaysWhenThereIsNoMessage)
{
    EXPECT_LT(MimeParseMessage(Path("missing"), 1, &message_), 0);
    EXPECT_LT(MimeParseMessage(Path("."), 1, &message_), 0);
    EXPECT_EQ(Parse(""), nullptr);
    EXPECT_LT(parsed_, 0);
    EXPECT_EQ(MimeGetMsg(nullptr, 0), nullptr);
    EXPECT_EQ(MimeGetMsg(message_.get(), 1), nullptr);
    EXPECT_EQ(MimeGetVersion(nullptr), 0);
    EXPECT_EQ(MimeGetPartCount(nullptr), 0);
    EXPECT_EQ(MimeGetBody(nullptr, 0, -1), "");
    std::string none;
    MimeFreeFile(&none);
}

TEST_F(Mime, LibraryMayBeStartedAgain)
{
    for (int i = 0; i < 2; ++i) {
        InitKVTDll("DL Manager");
        EXPECT_EQ(Body(Parse("Subject: x\n\nbody")), "body");
        message_.reset();
        TerminateKVTDll();
    }
}

TEST_F(Mime, WritesDatesAsRfc5322)
{
    constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();
    constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();
    const struct {
        DateRecord date;
        const char* want;
    } rows[] = {
        {{2026, 11, 21, 7, 5, 9, 0, 60, 3}, "Sat, 21 Nov 2026 07:05:09 +0100"},
        {{2000, 2, 29, 23, 59, 60, 0, -660, 3}, "Tue, 29 Feb 2000 23:59:60 -1100"},
        {{1900, 3, 1, 0, 0, 0, 0, 330, 3}, "Thu, 01 Mar 1900 00:00:00 +0530"},
        {{2024, 1, 1, 12, 0, 0, 0, -1, 3}, "Mon, 01 Jan 2024 12:00:00 -0001"},
        {{2023, 2, 31, 12, 0, 0, 0, 0, 3}, "Tue, 28 Feb 2023 12:00:00 +0000"},
        {{kMax, kMax, kMax, kMax, kMax, kMax, 0, kMax, 3}, "Fri, 31 Dec 9999 23:59:60 +2359"},
        {{kMin, kMin, kMin, kMin, kMin, kMin, 0, kMin, 3}, "Mon, 01 Jan 1900 00:00:00 -2359"}};
    for (const auto& row : rows)
        EXPECT_EQ(UTC2rfc(row.date), row.want);
}

}  // namespace
}  // namespace dl
