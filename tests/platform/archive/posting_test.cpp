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
    // The texts, each with '|' behind it.
    static std::string Texts(const PostingFile& file)
    {
        std::string all;
        for (const PostingText& text : file.Get().texts)
            all += text.text + "|";
        return all;
    }
    static std::string Attachments(const PostingFile& file)
    {
        std::string all;
        for (const PostingAttachment& attachment : file.Get().attachments)
            all += attachment.name + ":" + attachment.type + "|";
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

TEST_F(ReadPosting, Bodies)
{
    struct Row {
        const char* name;
        std::string header;
        std::string body;
        const char* texts;
        const char* attachments;
    };
    const std::string plain = "Content-Type: text/plain; charset=";
    const std::string qp = "\r\nContent-Transfer-Encoding: quoted-printable\r\n";
    const std::string mixed = "Content-Type: multipart/mixed; boundary=b\r\n";
    const std::string alternative = "Content-Type: multipart/alternative; boundary=b\r\n";
    const std::vector<Row> rows = {
        {"no header at all", "", "caf\xC3\xA9\r\n", "café\n|", ""},
        {"undeclared Latin-1", "", "caf\xE9\r\n", "café\n|", ""},
        {"utf-8 that is none", plain + "utf-8\r\n", "caf\xE9!\r\n", "caf\uFFFD!\n|", ""},
        {"us-ascii that is utf-8", plain + "us-ascii\r\n", "\xC3\xA9\r\n", "é\n|", ""},
        {"iso-8859-15", plain + "iso-8859-15" + qp, "=A4\r\n", "€\n|", ""},
        {"koi8-r", plain + "koi8-r" + qp, "=D0\r\n", "п\n|", ""},
        {"iso-2022-jp", plain + "iso-2022-jp\r\n", "\x1b$B$\"\x1b(B\r\n", "あ\n|", ""},
        {"shift_jis with a broken byte", plain + "shift_jis" + qp, "=82=A0=FF!\r\n", "あ\uFFFD!\n|",
         ""},
        {"utf-16", plain + "utf-16le\r\nContent-Transfer-Encoding: base64\r\n", "6QAKAA==\r\n",
         "é\n|", ""},
        {"unknown charset", plain + "x-klingon\r\n", "a\xC3\xA9\r\n", "aé\n|", ""},
        {"flowed", "Content-Type: text/plain; format=flowed\r\n",
         "a \r\nb\r\n> c \r\n> d\r\n-- \r\ne\r\n", "a b\n> c d\n-- \ne\n|", ""},
        {"flowed, delsp", "Content-Type: text/plain; format=flowed; delsp=yes\r\n", "日 \r\n本\r\n",
         "日本\n|", ""},
        {"HTML only", "Content-Type: text/html\r\n", "<p>a &amp; b<script>x</script>\r\n",
         "a & b\n|", ""},
        {"alternative: plain text", alternative,
         "--b\r\n\r\nplain\r\n--b\r\nContent-Type: text/html\r\n\r\nhtml\r\n--b--\r\n", "plain\n|",
         ""},
        {"alternative: empty plain text", alternative,
         "--b\r\n\r\n \r\n--b\r\nContent-Type: text/html\r\n\r\nhtml\r\n--b--\r\n", "html\n|", ""},
        {"an attached text is no body", mixed,
         "--b\r\n\r\nx\r\n--b\r\nContent-Disposition: attachment; "
         "filename=\"n.txt\"\r\n\r\ny\r\n--b--\r\n",
         "x\n|", "n.txt:text/plain|"},
        {"encoded file name", mixed,
         "--b\r\nContent-Type: application/pdf; name*=utf-8''%C3%A9.pdf\r\n\r\ny\r\n--b--\r\n", "",
         "é.pdf:application/pdf|"},
        {"forwarded message", mixed,
         "--b\r\n\r\nx\r\n--b\r\nContent-Type: message/rfc822\r\n\r\nSubject: "
         "y\r\n\r\nz\r\n--b--\r\n",
         "x\n|", ":message/rfc822|"},
        {"signed",
         "Content-Type: multipart/signed; boundary=b; protocol=\"application/pgp-signature\"\r\n",
         "--b\r\n\r\nx\r\n--b\r\nContent-Type: application/pgp-signature; "
         "name=s.asc\r\n\r\ny\r\n--b--\r\n",
         "x\n|", "s.asc:application/pgp-signature|"},
        {"no end boundary", mixed, "--b\r\n\r\nx\r\n", "x\n|", ""},
        {"a multipart without parts", mixed, "nothing\r\n", "", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const auto file = Read("Subject: s\r\n" + row.header + "\r\n" + row.body);
        ASSERT_TRUE(file);
        EXPECT_EQ(Texts(*file), row.texts);
        EXPECT_EQ(Attachments(*file), row.attachments);
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
