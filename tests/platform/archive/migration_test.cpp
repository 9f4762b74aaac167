// An index of an older format.

#include <cstdlib>
#include <set>

#include "tests/platform/archive/archive_fixture.h"
#include "tests/support/child.h"
#include "tests/support/failing_files.h"
#include "tests/support/killed.h"

namespace dl::testing
{
namespace
{

class ArchiveMigration : public ArchiveFixture
{
 protected:
    ArchiveMigration()
    {
        for (const unsigned long id : {1UL, 2UL, 4UL})
            Write(Posting(id), MessageOf(id, {.subject = id == 2 ? "Re: Roses" : "Roses"}));
        Write(Posting(3), "");
    }
    // Puts the index of that format in place.
    void Load(int format)
    {
        copy = "index.db.format-" + std::to_string(format);
        for (const std::string& name : FileNames(ArchivePath()))
            if (name.starts_with("index.db"))
                std::filesystem::remove(ArchivePath() + "/" + name);
        ASSERT_EQ(Sql("index.db",
                      ".read " + DataPath("archive/format" + std::to_string(format) + ".sql")),
                  "wal\n");
        old = Content("index.db");
    }
    [[nodiscard]] std::string Posting(unsigned long id) const
    {
        return "data/" + list + "/archive/0000000" + std::to_string(id) + ".msg";
    }
    // What the database's own program answers.
    [[nodiscard]] std::string Sql(const std::string& file, const std::string& command) const
    {
        std::string output;
        const int status =
            RunProgram({"/usr/bin/sqlite3", ArchivePath() + "/" + file, command}, &output);
        return status == 0 ? output : "failed: " + output;
    }
    // A sum over all rows and tables, with the format.
    [[nodiscard]] std::string Content(const std::string& file) const
    {
        return Sql(file, "PRAGMA user_version") + Sql(file, ".sha3sum --schema");
    }
    [[nodiscard]] std::string Rows(const std::string& tables) const
    {
        return Sql("index.db", "SELECT * FROM " + tables);
    }
    // As many rows that nothing reads as make the copy take a while.
    void Grow()
    {
        ASSERT_EQ(Sql("index.db",
                      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE"
                      " i < 600) INSERT INTO address SELECT printf('%04000d', i), 1, i FROM n"),
                  "");
        old = Content("index.db");
    }
    // The old index is there, whole, as it is or as its copy; and what stands nowhere else is in
    // the present one.
    void ExpectNothingLost() const
    {
        const std::string now = Content("index.db");
        if (now != old) {
            EXPECT_EQ(Sql("index.db", "PRAGMA user_version"), "3\n");
            EXPECT_TRUE(Content(copy) == old) << "the copy is not the old index";
        }
        EXPECT_EQ(Rows("meta WHERE name IN ('description', 'salt', 'title', 'url')"),
                  "description|Beans & frost\nsalt|ff0431890675595393a939ec24ec5845\n"
                  "title|Garden talk\nurl|https://a.example/garden/\n");
        EXPECT_EQ(Sql("index.db", "SELECT count(*) FROM posting; PRAGMA integrity_check"),
                  "2\nok\n");
    }

    std::string copy;  // of the old index, its name
    std::string old;
};

class OlderArchive : public ArchiveMigration, public ::testing::WithParamInterface<int>
{
};
INSTANTIATE_TEST_SUITE_P(Formats, OlderArchive, ::testing::Values(1, 2));

TEST_P(OlderArchive, IsCopiedAndBroughtUpToDate)
{
    Load(GetParam());
    const auto before = CDlArchive::LeftOut(list);
    ASSERT_EQ(before.size(), 1U);
    EXPECT_EQ(before[0].id, 3U);
    EXPECT_EQ(before[0].cause, GetParam() == 1 ? "" : "it is empty");
    EXPECT_EQ(Content("index.db"), old) << "looking changes nothing";

    log.ExpectError("leaves out 00000003.msg, which cannot be read as a message: it is empty");
    Generate();
    EXPECT_TRUE(log.HasPart("was brought from format " + std::to_string(GetParam()) +
                            " to 3, the old one is kept as " + ArchivePath() + "/" + copy));
    EXPECT_EQ(Content(copy), old);
    EXPECT_EQ(Sql("index.db", "PRAGMA user_version"), "3\n");
    EXPECT_EQ(PostingPages("Roses").size(), 2U);
    const std::string front = Page("index.html");
    for (const char* part : {"Garden talk", "Beans &amp; frost", "3 postings"})
        EXPECT_NE(front.find(part), std::string::npos) << part;
    CheckPages();

    // The pages stand at the addresses that they had; what was left out was tried again.
    EXPECT_NE(Page("p/e9/e9c8728e53600a6fa3bb.html").find("Re: Roses"), std::string::npos);
    log.Clear();
    Generate();
    const auto after = CDlArchive::LeftOut(list);
    ASSERT_EQ(after.size(), 1U);
    EXPECT_EQ(after[0].cause, "it is empty");
    EXPECT_EQ(after[0].since, clock.now);
    EXPECT_FALSE(log.HasPart("format")) << "once is enough";
}

TEST_F(ArchiveMigration, WithoutACopyNothingIsChanged)
{
    Load(2);
    for (const char* name : {"/index.db.format-2", "/index.db.format-2.part"}) {
        SCOPED_TRACE(name);
        Write("data/" + list + "/archive" + name + "/file", "");
        try {
            CDlArchive::AddArchive(ArchivePath(), 4);
            ADD_FAILURE() << "was filed";
        } catch (const CDlArchiveException& problem) {
            EXPECT_NE(std::string(problem.message)
                          .find("no copy of the index can be written to " + ArchivePath() +
                                "/index.db.format-2"),
                      std::string::npos)
                << problem.message;
        }
        EXPECT_EQ(Content("index.db"), old);
        std::filesystem::remove_all(ArchivePath() + name);
    }
    CDlArchive::AddArchive(ArchivePath(), 4);
    ExpectNothingLost();
}

TEST_F(ArchiveMigration, SeveralProgramsAtOnceMakeOneCopyOfTheOldIndex)
{
    Load(2);
    Grow();
    std::vector<pid_t> children;
    for (int i = 0; i < 4; ++i) {
        children.push_back(fork());
        if (children.back() == 0) {
            try {
                CDlArchive::AddArchive(ArchivePath(), 4);
            } catch (const CDlArchiveException&) {
                _exit(1);
            }
            _exit(0);
        }
    }
    for (const pid_t child : children) {
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    ExpectNothingLost();
}

// Kills its process right before or right after a file gets its name.
class KillingFiles : public FailingFiles
{
 public:
    explicit KillingFiles(bool before) : before_(before) {}
    bool Rename(const char* from, const char* to) override
    {
        if (!before_ && !PosixFiles().Rename(from, to))
            return false;
        return ::raise(SIGKILL) == 0;
    }

 private:
    const bool before_;
};

TEST_F(ArchiveMigration, AKillInTheMiddleLosesNothing)
{
    namespace fs = std::filesystem;
    Load(1);
    Grow();
    ASSERT_EQ(Sql("index.db", "PRAGMA wal_checkpoint(TRUNCATE)"), "0|0|0\n");
    const std::string index = ArchivePath() + "/index.db";
    const std::string kept = Path("kept.db");
    fs::copy_file(index, kept);
    const auto prepare = [&] { PutIndexBack(kept, index); };
    const auto file = [&] {
        CDlArchive::AddArchive(ArchivePath(), 4);
        return true;
    };
    std::set<std::string> left;
    const auto look = [&] {
        left.insert(std::string(fs::exists(index + ".format-1.part") ? "part of a copy, " : "") +
                    (fs::exists(index + ".format-1") ? "copy, " : "") + "format " +
                    Sql("index.db", "PRAGMA user_version"));
        (void)file();  // the next program goes on
        ExpectNothingLost();
        EXPECT_EQ(Rows("incoming WHERE id=3"), "3|1100000000000000|1||0|0|0\n");
        EXPECT_FALSE(fs::exists(index + ".format-1.part"));
    };
    EXPECT_GT(KillAtEachMoment(8, {prepare, file, look}), 0);
    for (const bool before : {true, false}) {
        const auto kill_itself = [&] {
            const KillingFiles files(before);
            return file();
        };
        EXPECT_GT(KillAtEachMoment(0, {prepare, kill_itself, look}), 0);
    }
    for (const char* state : {"part of a copy, format 1\n", "copy, format 1\n", "copy, format 3\n"})
        EXPECT_EQ(left.count(state), 1U) << state;
}

}  // namespace
}  // namespace dl::testing
