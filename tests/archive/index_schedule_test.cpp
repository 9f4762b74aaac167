// When the archives' pages are made, and by whom.

#include "archive/index_schedule.h"

#include <chrono>
#include <thread>

#include "tests/support/site.h"

namespace dl::testing
{
namespace
{

constexpr std::time_t kNoon = 1'100'001'600;  // 2004-11-09 12:00:00 UTC, a Tuesday

class IndexSchedule : public Site
{
 protected:
    void SetUp() override
    {
        AddUsualLists();
        Start();
        clock.now = kNoon;
    }
    void Set(const std::string& keys)
    {
        Configure("[Ldap]\nFile = " + Path("site.ldif") +
                  "\n[DlManager]\nDbPath = " + Path("data") + "/\n" + keys);
    }
    [[nodiscard]] long Stored() const { return std::atol(ReadFile(Path("data/index.dt")).c_str()); }
    void WaitForWorker()
    {
        for (int i = 0; ArchiveWorkerRuns() && i < 2000; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_FALSE(ArchiveWorkerRuns());
    }
};

TEST_F(IndexSchedule, BeginsTodayAndGoesOnByTheCalendar)
{
    constexpr std::time_t kHour = 3600;
    constexpr std::time_t kDay = 24 * kHour;
    const struct {
        const char* name;
        const char* keys;
        std::time_t first;  // of a new file, counted from noon
        std::time_t next;   // after a run then
    } kRows[] = {
        {"daily", "ArchiveIndexTime = 18:00\n", 6 * kHour, kDay + 6 * kHour},
        {"weekly on Wednesday begins today",
         "ArchiveIndexTime = 18:00\nArchiveIndexFrequency = Weekly\nArchiveDayOfWeek = 3\n",
         6 * kHour, kDay + 6 * kHour},
        {"monthly on the first begins today",
         "ArchiveIndexTime = 13:30\nArchiveIndexFrequency = MONTHLY\nArchiveDayOfMonth = 1\n",
         3 * kHour / 2, 22 * kDay + 3 * kHour / 2},
        {"no minute, and a frequency that is none",
         "ArchiveIndexTime = 13\nArchiveIndexFrequency = hourly\n", kHour, kDay + kHour},
        {"a day beyond the calendar", "ArchiveIndexTime = 18:00\nArchiveDayOfWeek = 2147483647\n",
         6 * kHour, kDay + 6 * kHour},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove(Path("data/index.dt"));
        Set(row.keys);
        clock.now = kNoon;
        log.Clear();
        RunArchiveIndexSchedule();
        EXPECT_EQ(Stored(), kNoon + row.first);
        EXPECT_EQ(Log(), "") << "not yet due";
        clock.now = kNoon + row.first;
        RunArchiveIndexSchedule();
        WaitForWorker();
        EXPECT_TRUE(log.Has(5, "Time to update the archive index pages of  all mailing lists"));
        EXPECT_TRUE(log.HasPart("Next archive index generation  will be on "));
        EXPECT_EQ(Stored(), kNoon + row.next);
        log.Clear();
        RunArchiveIndexSchedule();
        EXPECT_EQ(Log(), "") << "not twice";
    }
}

// With nothing configured midnight is meant, which has passed: due at once.
TEST_F(IndexSchedule, AFirstMomentThatHasPassedIsDueAtOnce)
{
    Set("");
    RunArchiveIndexSchedule();
    WaitForWorker();
    EXPECT_TRUE(log.Has(6, "Next archive index generation  will be on Wed Nov 10 00:00:00 2004"));
    EXPECT_EQ(Stored(), kNoon + 12 * 3600);
}

// A moment that lies too far ahead is corrected in the file, but decided on as it was read.
TEST_F(IndexSchedule, IsBroughtForward)
{
    Set("");
    Write("data/index.dt", std::to_string(kNoon + 30 * 86400));
    RunArchiveIndexSchedule();
    EXPECT_EQ(Stored(), kNoon + 12 * 3600);
    EXPECT_FALSE(log.HasPart("Time to update"));
}

TEST_F(IndexSchedule, WithoutDataFolderNothingHappens)
{
    Set("");
    std::filesystem::remove_all(Path("data"));
    RunArchiveIndexSchedule();
    EXPECT_EQ(Log(), "");
}

// The worker makes the pages of all lists with lists of its own, and a list whose archive fails
// ends its walk.
TEST_F(IndexSchedule, WorkerWalksAllListsUntilOneFails)
{
    Write("data/garden@lists.example.org/archive/00000001.msg",
          "From: a@example.com\r\nSubject: first\r\n\r\nx\r\n");
    GenerateArchiveIndexes();
    const std::string text = Log(5);
    EXPECT_EQ(text,
              Lines({"5 Generating archive index pages of garden@lists.example.org mailing list",
                     "5 Generating archive index pages of board@lists.example.org mailing list",
                     "5 Generating archive index pages of club@lists.example.org mailing list",
                     "5 Releasing thread..."}));
    log.Clear();
    Write("data/board@lists.example.org/archive/index.db", "this is no index");
    log.ExpectError("index");
    GenerateArchiveIndexes();
    EXPECT_TRUE(log.HasPart("of board@lists.example.org"));
    EXPECT_FALSE(log.HasPart("of club@lists.example.org"));
    EXPECT_TRUE(log.Has(5, "Releasing thread..."));
}

}  // namespace
}  // namespace dl::testing
