// Byte-exact results of the two rewritten copies.

#include "antispam/rewrite_marks.h"

#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

class RewriteMarks : public Fixture
{
};

TEST_F(RewriteMarks, Results)
{
    const struct {
        const char* name;
        std::string message;
        std::string subject;  // with the subject changed to "SPAM"
        std::string header;   // with the header added
    } rows[] = {
        {"usual", "A: b\r\nSubject: hi\r\nC: d\r\n\r\nbody\r\n",
         "A: b\r\nSubject: SPAM\r\nC: d\r\n\r\nbody\r\n",
         "A: b\r\nSubject: hi\r\nC: d\r\nX-Spam-Status: YES\r\n\r\nbody\r\n"},
        {"continued, any case", "SUBJECT: one\r\n two\r\n\tthree\r\nC: d\r\n e\r\n\r\n x\r\n",
         "Subject: SPAM\r\nC: d\r\n e\r\n\r\n x\r\n",
         "SUBJECT: one\r\n two\r\n\tthree\r\nC: d\r\n e\r\nX-Spam-Status: YES\r\n\r\n x\r\n"},
        {"none", "A: b\r\n\r\nSubject: body\r\n\r\n",
         "A: b\r\nSubject: SPAM\r\n\r\nSubject: body\r\n\r\n",
         "A: b\r\nX-Spam-Status: YES\r\n\r\nSubject: body\r\n\r\n"},
        {"only the first", "Subject: 1\r\nSubject: 2\r\n\r\n",
         "Subject: SPAM\r\nSubject: 2\r\n\r\n",
         "Subject: 1\r\nSubject: 2\r\nX-Spam-Status: YES\r\n\r\n"},
        {"last of the header", "Subject: 1\r\n\r\n b\r\n", "Subject: SPAM\r\n\r\n b\r\n",
         "Subject: 1\r\nX-Spam-Status: YES\r\n\r\n b\r\n"},
        {"empty header", "\r\nbody", "Subject: SPAM\r\n\r\nbody", "X-Spam-Status: YES\r\n\r\nbody"},
        {"no empty line", "A: b\r\n", "A: b\r\n", "A: b\r\n"},
        {"empty", "", "", ""},
        {"other bytes", std::string("A: \0\xff\r\n\r\n\n\r\0", 13),
         std::string("A: \0\xff\r\nSubject: SPAM\r\n\r\n\n\r\0", 28),
         std::string("A: \0\xff\r\nX-Spam-Status: YES\r\n\r\n\n\r\0", 33)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string source = Write("in.msg", row.message);
        EXPECT_TRUE(ChangeSubject(source, Path("subject.msg"), "SPAM"));
        EXPECT_EQ(ReadFile(Path("subject.msg")), row.subject);
        EXPECT_TRUE(AddXHeader(source, Path("header.msg")));
        EXPECT_EQ(ReadFile(Path("header.msg")), row.header);
        EXPECT_EQ(ReadFile(source), row.message);
    }
    EXPECT_TRUE(ChangeSubject(Write("in.msg", "\r\n"), Path("out.msg"), "a\r\nBcc: b"));
    EXPECT_EQ(ReadFile(Path("out.msg")), "Subject: a  Bcc: b\r\n\r\n");
}

TEST_F(RewriteMarks, Failures)
{
    const std::string source = Write("in.msg", "A: b\r\n\r\n");
    log.ExpectError("ChangeSubject - Catch error: -1");
    EXPECT_FALSE(ChangeSubject(Path("missing"), Path("out"), "x"));
    log.ExpectError("ChangeSubject - Catch error: -2");
    EXPECT_FALSE(ChangeSubject(source, Path("no/where"), "x"));
    log.ExpectError("AddXHeader - Catch error: -1");
    EXPECT_FALSE(AddXHeader(Path("missing"), Path("out")));
    log.ExpectError("AddXHeader - Catch error: -3");
    EXPECT_FALSE(AddXHeader(source, "/dev/full"));
    log.ExpectError("AddXHeader - Catch error: -4");
    EXPECT_FALSE(AddXHeader(Path(""), Path("out"))) << "a folder";
}

}  // namespace
}  // namespace dl::testing
