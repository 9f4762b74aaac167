// Postings that are recorded before their files are there, and filed once whatever happens between.
#include <functional>
#include <thread>

#include "platform/log/format.h"
#include "tests/platform/archive/archive_fixture.h"
#include "tests/support/child.h"
#include "tests/support/killed.h"
#include "tests/support/no_descriptors.h"

namespace dl::testing
{
namespace
{

constexpr std::time_t kHour = 3600;
constexpr std::time_t kDay = 24 * kHour;

class Announce : public ArchiveFixture
{
 protected:
    // Announces one posting; "<id> known" or "<id> new" of what comes of it.
    std::string Tell(const std::string& source, unsigned long id)
    {
        std::vector<ArchiveFiling> one{{source, id}};
        CDlArchive::AnnounceArchive(ArchivePath(), &one);
        return std::to_string(one[0].id) + (one[0].known ? " known" : " new");
    }
    // The file gets its final name.
    void PutFile(unsigned long id)
    {
        Write("data/" + list + "/archive/" + FormatText("%08lX.msg", id),
              MessageOf(id, {.subject = "P" + std::to_string(id)}));
    }
    [[nodiscard]] std::string Unreadable() const
    {
        std::string all;
        for (const LeftOutPosting& one : CDlArchive::LeftOut(list))
            all += std::to_string(one.id) + " " + one.cause + ", ";
        return all;
    }
    [[nodiscard]] std::string Rows(const std::string& query) const
    {
        std::string output;
        EXPECT_EQ(RunProgram({"/usr/bin/sqlite3", ArchivePath() + "/index.db", query}, &output), 0);
        return output;
    }
    [[nodiscard]] std::size_t Shown(unsigned long id) const
    {
        return PostingPages("P" + std::to_string(id)).size();
    }
};

TEST_F(Announce, APostingWaitsForItsFile)
{
    const std::string missing = "it cannot be opened: No such file or directory";
    const struct {
        const char* name;
        std::time_t age;  // of the announcement, when the pages are made without the file
        std::string unreadable;
        bool forgotten;
    } rows[] = {{"at once", 0, "", false},
                {"just within the hour", kHour - 1, "", false},
                {"after the hour", kHour, missing, false},
                {"just within the day", kDay - 1, missing, false},
                {"after the day", kDay, "", true}};
    unsigned long id = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string source = "message " + std::to_string(++id);
        const bool unreadable = !row.unreadable.empty();
        const std::string want = unreadable ? std::to_string(id) + " " + row.unreadable + ", " : "";
        EXPECT_EQ(Tell(source, id), std::to_string(id) + " new");
        clock.now += row.age;
        Generate();
        EXPECT_EQ(Shown(id), 0U);
        EXPECT_EQ(Unreadable(), want);
        if (unreadable)
            log.ExpectError(FormatText("leaves out %08lX.msg", id));
        if (row.forgotten) {
            EXPECT_EQ(Rows("SELECT count(*) FROM incoming"), "0\n");
            EXPECT_EQ(Tell(source, 77), "77 new");
            continue;
        }
        PutFile(id);
        Generate();
        EXPECT_EQ(Shown(id), 1U);
        EXPECT_EQ(Unreadable(), "");
        CheckPages();
    }
}

// Filing a message again changes nothing, as long as its posting is there.
TEST_F(Announce, ASourceIsKnownAsLongAsItsPosting)
{
    EXPECT_EQ(Tell("m1", 1), "1 new");
    EXPECT_EQ(Tell("m2", 2), "2 new");
    PutFile(1);
    const auto again = [&] {
        EXPECT_EQ(Tell("m1", 11), "1 known");
        EXPECT_EQ(Tell("m2", 12), "2 known");
        EXPECT_EQ(Rows("SELECT count(*) FROM incoming WHERE id > 10"), "0\n");
    };
    const std::function<void()> deeds[] = {[] {}, [&] { Generate(); },
                                           [&] { CDlArchive::RebuildArchive(list); },
                                           [&] { CDlArchive::AddArchive(ArchivePath(), 1); },
                                           [&] { CDlArchive::RebuildArchive(list); }};
    for (const auto& deed : deeds) {
        deed();
        again();
        Generate();
        EXPECT_EQ(Shown(1), 1U);
        EXPECT_EQ(Shown(2), 0U);
        EXPECT_EQ(Unreadable(), "");
        CheckPages();
    }
    const auto before = Inodes();
    again();
    Generate();
    EXPECT_EQ(Written(before), std::vector<std::string>{});
    CDlArchive::RemoveArchive(list, 1);
    CDlArchive::RemoveArchive(list, 2);
    EXPECT_EQ(Tell("m1", 11), "11 new");
    EXPECT_EQ(Tell("m2", 12), "12 new");
}

TEST_F(Announce, AnnouncedAgainAFileMayTakeAnotherHour)
{
    EXPECT_EQ(Tell("m1", 1), "1 new");
    clock.now += kHour;
    log.ExpectError("leaves out 00000001.msg");
    Generate();
    EXPECT_NE(Unreadable(), "");
    clock.now += 2 * kDay;
    EXPECT_EQ(Tell("m1", 2), "1 known");
    EXPECT_EQ(Unreadable(), "");
    Generate();
    EXPECT_EQ(Unreadable(), "");
    PutFile(1);
    Generate();
    EXPECT_EQ(Shown(1), 1U);
}

TEST_F(Announce, SeveralAreRecordedTogetherOrNotAtAll)
{
    EXPECT_EQ(Tell("old", 5), "5 new");
    std::vector<ArchiveFiling> several{{"a", 1}, {"old", 2}, {"", 3}, {"", 4}, {"a", 9}};
    CDlArchive::AnnounceArchive(ArchivePath(), &several);
    std::string seen;
    for (const ArchiveFiling& one : several)
        seen += std::to_string(one.id) + (one.known ? " known, " : ", ");
    EXPECT_EQ(seen, "1, 5 known, 3, 4, 1 known, ");
    EXPECT_EQ(Rows("SELECT id FROM incoming"), "1\n3\n4\n5\n");

    std::vector<ArchiveFiling> failing{{"b", 20}, {"c", 0x100000000}};
    EXPECT_THROW(CDlArchive::AnnounceArchive(ArchivePath(), &failing), CDlArchiveException);
    failing[1].id = 21;
    {
        const NoDescriptors none;
        EXPECT_THROW(CDlArchive::AnnounceArchive(ArchivePath(), &failing), CDlArchiveException);
    }
    EXPECT_EQ(failing[1].id, 21U);
    EXPECT_EQ(Rows("SELECT count(*) FROM incoming WHERE id >= 20"), "0\n");
    EXPECT_EQ(Rows("SELECT count(*) FROM source"), "2\n");
    std::vector<ArchiveFiling> none{{"d", 30}};
    EXPECT_THROW(CDlArchive::AnnounceArchive(Path("nowhere"), &none), CDlArchiveException);
}

// Another posting under the identifier of one that was there.
TEST_F(Announce, APostingUnderTheSameIdentifierReplacesTheOld)
{
    EXPECT_EQ(Tell("m1", 1), "1 new");
    EXPECT_EQ(Tell("m2", 1), "1 new");
    EXPECT_EQ(Tell("m1", 2), "2 new") << "its posting has gone";
    EXPECT_EQ(Tell("m2", 3), "1 known");
}

// The service files a message, is killed at any moment, and files it again under another
// identifier.
TEST_F(Announce, FiledAgainAfterAKillItIsThereOnce)
{
    const auto file_it = [&](unsigned long own) {
        std::vector<ArchiveFiling> one{{"the message", own}};
        CDlArchive::AnnounceArchive(ArchivePath(), &one);
        const std::string name = ArchivePath() + FormatText("/%08lX.msg", one[0].id);
        Write("data/" + list + "/archive/part", MessageOf(7, {.subject = "Once"}));
        std::filesystem::rename(ArchivePath() + "/part", name);
        return true;
    };
    const auto prepare = [&] {
        std::filesystem::remove_all(ArchivePath());
        std::filesystem::create_directories(ArchivePath());
        Post(0xFFFF, {});
    };
    const auto look = [&] {
        ASSERT_TRUE(file_it(10));
        Generate();
        EXPECT_EQ(PostingPages("Once").size(), 1U);
        CDlArchive::RebuildArchive(list);
        EXPECT_EQ(PostingPages("Once").size(), 1U);
        EXPECT_EQ(Unreadable(), "");
    };
    EXPECT_GT(KillAtEachMoment(20, {prepare, [&] { return file_it(1); }, look}), 0);
}

// Announcing goes on while pages are made and made again.
TEST_F(Announce, GoesOnBesideTheWritingOfPages)
{
    constexpr unsigned long kPostings = 40;
    std::thread writer([&] {
        for (int i = 0; i < 6; ++i)
            i % 3 == 2 ? CDlArchive::RebuildArchive(list) : CDlArchive::GenerateIndexPages(list);
    });
    for (unsigned long id = 1; id <= kPostings; ++id) {
        EXPECT_EQ(Tell("m" + std::to_string(id), id), std::to_string(id) + " new");
        PutFile(id);
        EXPECT_EQ(Tell("m" + std::to_string(id), id + 1000), std::to_string(id) + " known");
    }
    writer.join();
    Generate();
    EXPECT_NE(Page("index.html").find("40 postings"), std::string::npos);
    EXPECT_EQ(Unreadable(), "");
    CheckPages();
}

}  // namespace
}  // namespace dl::testing
