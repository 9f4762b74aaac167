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

// Messages lie in tests/data/spam_marked.txt, each with the copy whose subject is changed to "SPAM"
// and, behind "--", that with the header.
TEST_F(RewriteMarks, Results)
{
    for (const DataBlock& row : ReadBlocks("spam_marked.txt")) {
        SCOPED_TRACE(row.name);
        const std::string source = Write("in.msg", Crlf(row.in));
        EXPECT_TRUE(ChangeSubject(source, Path("subject.msg"), "SPAM"));
        EXPECT_TRUE(AddXHeader(source, Path("header.msg")));
        EXPECT_EQ(ReadFile(Path("subject.msg")) + "--\r\n" + ReadFile(Path("header.msg")),
                  Crlf(row.want));
        EXPECT_EQ(ReadFile(source), Crlf(row.in));
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
