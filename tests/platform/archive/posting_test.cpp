// A message as its readers see it.
#include "platform/mime/read_posting.h"

#include "tests/support/fixture.h"

namespace dl
{
namespace
{

class ReadPosting : public testing::Fixture
{
 protected:
    std::unique_ptr<PostingFile> Read(const std::string& message)
    {
        return PostingFile::Read(Write("m.msg", message));
    }
    // The texts, each with '|' and a line end behind it.
    static std::string Texts(const PostingFile& file)
    {
        std::string all;
        for (const PostingText& text : file.Get().texts)
            all += text.text + "|\n";
        return all;
    }
    static std::string Attachments(const PostingFile& file)
    {
        std::string all;
        for (const PostingAttachment& attachment : file.Get().attachments)
            all += attachment.name + ":" + attachment.type + "|\n";
        return all;
    }
};

TEST_F(ReadPosting, Headers)
{
    const auto file = Read(
        "Message-ID: < a@b >\r\nReferences: <1@x> <2@x>\r\nIn-Reply-To: <3@x> <a@b>\r\n"
        "From: =?iso-8859-1?q?J=FCrgen?= <j@x.org>\r\nTo: \"Bell, Anna\" <a@x.org>, g: b@x.org;\r\n"
        "Subject: =?utf-8?b?R3LDvMOfZQ==?=\r\n =?utf-8?q?_an_alle?=\r\n"
        "Date: Sat, 21 Nov 2026 07:05:09 +0100\r\n\r\nx\r\n");
    ASSERT_TRUE(file);
    const Posting& posting = file->Get();
    EXPECT_EQ(posting.references, (std::vector<std::string>{"2@x", "1@x", "3@x"}));
    EXPECT_EQ(posting.from.name, "Jürgen");
    EXPECT_EQ(posting.from.address, "j@x.org");
    EXPECT_EQ(posting.subject, "Grüße an alle");
    ASSERT_EQ(posting.to.size(), 2U);
    EXPECT_EQ(posting.to[0].name, "Bell, Anna");
    EXPECT_EQ(posting.to[1].address, "b@x.org");
    EXPECT_EQ(posting.date, 1795241109);
    EXPECT_EQ(posting.zone_minutes, 60);
}

// Messages lie in tests/data/posting_bodies.txt, each with its texts and its attachments.
TEST_F(ReadPosting, Bodies)
{
    for (const testing::DataBlock& row : testing::ReadBlocks("posting_bodies.txt")) {
        SCOPED_TRACE(row.name);
        const auto file = Read("Subject: s\r\n" + testing::Crlf(row.in));
        ASSERT_TRUE(file);
        EXPECT_EQ(Texts(*file) + Attachments(*file), row.want);
    }
}

TEST_F(ReadPosting, ALongTextIsCutAndAttached)
{
    std::string body;
    while (body.size() < 3'000'000)
        body += "A line of a very long text.\r\n";
    const auto file = Read("Subject: s\r\n\r\n" + body);
    ASSERT_TRUE(file);
    ASSERT_EQ(file->Get().texts.size(), 1U);
    EXPECT_TRUE(file->Get().texts[0].cut);
    EXPECT_TRUE(file->Get().texts[0].text.ends_with("long text.\n"));
    ASSERT_EQ(file->Get().attachments.size(), 1U);
    FileWriter out(Path("all.txt"), "wb");
    EXPECT_TRUE(file->WriteAttachment(0, &out) && out.Close());
    EXPECT_EQ(testing::ReadFile(Path("all.txt")), body);
}

TEST_F(ReadPosting, IdentityIsTheMessageIdsOrWhatElseTellsApart)
{
    const std::string with = "Message-ID: <a@b>\r\n";
    EXPECT_EQ(Read(with + "Subject: x\r\n\r\n1\r\n")->Get().identity, Sha256Hex("a@b"));
    EXPECT_EQ(Read(with + "Subject: y\r\n\r\n2\r\n")->Get().identity, Sha256Hex("a@b"));
    EXPECT_NE(Read("Subject: x\r\n\r\n1\r\n")->Get().identity,
              Read("Subject: x\r\n\r\n2\r\n")->Get().identity);
    EXPECT_EQ(Read("X: 1\r\nSubject: x\r\n\r\n1\r\n")->Get().identity,
              Read("X: 2\r\nSubject: x\r\n\r\n1\r\n")->Get().identity);
}

TEST_F(ReadPosting, WhatCannotBeReadIsNull)
{
    EXPECT_FALSE(PostingFile::Read(Path("none")));
    EXPECT_FALSE(Read(""));
}

}  // namespace
}  // namespace dl
