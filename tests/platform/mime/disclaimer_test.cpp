// Golden pairs: NAME.in.eml is the message, NAME.want.eml what it must become, byte by byte; a row
// of pairs.txt without the second stays as it is. compare_mail.py reads the same pairs with another
// mail library.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "platform/files/files.h"
#include "platform/mime/mime.h"
#include "platform/queue/queue.h"
#include "tests/support/failing_files.h"
#include "tests/support/fixture.h"

namespace dl
{
namespace
{

using testing::Crlf;
using testing::DataPath;
using testing::ReadFile;

struct Row {
    std::string name;
    std::string text;    // the plain-text disclaimer
    std::string reason;  // in the level 6 line of one that stays as it is
};

std::vector<Row> Rows()
{
    std::vector<Row> rows;
    for (const auto& fields : testing::ReadTable("mime/pairs.txt"))
        rows.push_back({fields.at(0), fields.at(1), fields.size() > 2 ? fields[2] : ""});
    return rows;
}

std::string Data(const std::string& name)
{
    return DataPath("mime/" + name);
}

class Disclaimer : public testing::Fixture
{
 protected:
    // The message after the insertion of notice.html and the text disclaimer `text`.
    std::string Insert(const std::string& message, const std::string& text = Data("ascii.txt"),
                       const std::string& html = Data("notice.html"))
    {
        const std::string file = Write("queue/m.msg", message);
        inserted_ = InsertDisclaimers(file, text, html);
        EXPECT_EQ(testing::FileNames(Path("queue")).size(), 1U);
        return ReadFile(file);
    }

    bool inserted_ = false;
};

TEST_F(Disclaimer, GoldenPairs)
{
    for (const Row& row : Rows()) {
        SCOPED_TRACE(row.name);
        log.Clear();
        const std::string message = ReadFile(Data(row.name + ".in.eml"));
        ASSERT_FALSE(message.empty());
        const std::string want =
            !row.reason.empty() ? message : ReadFile(Data(row.name + ".want.eml"));
        EXPECT_EQ(Insert(message, Data(row.text)), want);
        EXPECT_TRUE(inserted_);
        EXPECT_EQ(log.Texts().size(), row.reason.empty() ? 0U : 1U);
        EXPECT_TRUE(row.reason.empty() || log.HasPart(row.reason));
    }
}

TEST_F(Disclaimer, AnotherMailLibraryReadsTheSame)
{
    std::string command = "/usr/bin/env python3 " DL_SOURCE
                          "/tests/platform/mime/compare_mail.py " +
                          DataPath("mime") + " notice.html";
    for (const Row& row : Rows())
        if (row.reason.empty())
            command += " " + row.name + ":" + row.text;
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

TEST_F(Disclaimer, KeepsTheModeAndTheOldFileAfterAFailedWrite)
{
    const std::string message = ReadFile(Data("alternative.in.eml"));
    const std::string file = Write("queue/m.msg", message);
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    EXPECT_TRUE(InsertDisclaimers(file, Data("ascii.txt"), ""));
    struct stat status = {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);

    testing::FailingFiles disk;
    disk.FailNth(testing::FileCall::kWrite, 1);
    log.ExpectError("Cannot write the disclaimers");
    EXPECT_EQ(Insert(message), message);
    EXPECT_FALSE(inserted_);
}

TEST_F(Disclaimer, ReachesTheMessageOfAQueueEntry)
{
    ASSERT_TRUE(MQInitAt(Path("spool")));
    {
        const NewMQEntry entry;
        ASSERT_TRUE(entry);
        const std::string file = GetMQPathName(entry.get(), ".msg");
        FileWriter out(file, "wb");
        ASSERT_TRUE(out.Write("Subject: x\r\n\r\nbody\r\n") && out.Close());
        EXPECT_TRUE(AutoInsertForDL(GetMQId(entry.get()), Write("d.txt", "d"), ""));
        EXPECT_EQ(ReadFile(file), "Subject: x\r\n\r\nbody\r\nd\r\n");
        log.ExpectError("Cannot read");
        EXPECT_FALSE(AutoInsertForDL(GetMQId(entry.get()) + 1, Path("d.txt"), ""));
    }
    MQEnd();
}

TEST_F(Disclaimer, AnUnusableDisclaimerFileIsLeftOut)
{
    const std::string message = Crlf("Subject: x\nContent-Type: text/html\n\n<body>x</body>\n");
    log.ExpectError("missing.txt cannot be read");
    EXPECT_NE(Insert(message, Path("missing.txt")).find("<hr>"), std::string::npos);
    log.ExpectError("latin.html is not UTF-8");
    EXPECT_EQ(Insert(message, "", Write("latin.html", "Gr\xFC\xDF")), message);
    log.ExpectError("nul.html is not UTF-8");
    EXPECT_EQ(Insert(message, "", Write("nul.html", std::string("a\0b", 3))), message);
    EXPECT_TRUE(inserted_);
    log.ExpectError("gone.msg");
    EXPECT_FALSE(InsertDisclaimers(Path("gone.msg"), Data("ascii.txt"), ""));
}

TEST_F(Disclaimer, NothingToInsertCostsNothing)
{
    EXPECT_TRUE(InsertDisclaimers(Path("gone.msg"), "", ""));
    EXPECT_TRUE(InsertDisclaimers(Path("gone.msg"), Write("empty.txt", ""), ""));
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(Disclaimer, TakesTextFilesOfAnyEditor)
{
    const std::string text = Write("dos.txt", "\xEF\xBB\xBFone\r\ntwo");
    EXPECT_EQ(Insert("Subject: x\r\n\r\nbody", text), "Subject: x\r\n\r\nbody\r\none\r\ntwo\r\n");
    const std::string wide = Write("wide.txt", std::string(2000, 'w') + "\n");
    EXPECT_EQ(Insert("Subject: x\r\n\r\nbody\r\n", wide).find(std::string(998, 'w')),
              std::string::npos);
}

TEST_F(Disclaimer, QuotedPrintableEndings)
{
    const struct {
        const char* body;
        const char* want;  // between the body and the disclaimer
    } rows[] = {{"a\r\n", ""},      {"a", "\r\n"},       {"a=\r\n", "\r\n"},
                {"a=", "\r\n\r\n"}, {"a= ", "\r\n\r\n"}, {"", ""}};
    const std::string header =
        "MIME-Version: 1.0\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n";
    const std::string text = Write("d.txt", "d\n");
    for (const auto& row : rows)
        EXPECT_EQ(Insert(header + row.body, text), header + row.body + row.want + "d\r\n")
            << row.body;
}

}  // namespace
}  // namespace dl
