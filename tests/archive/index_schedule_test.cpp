// When the archives' pages are made, and by whom.

#include "archive/index_schedule.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
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
    // Has another process hold what the archive's worker needs.
    [[nodiscard]] pid_t HoldWriterLock(const std::string& archive) const
    {
        const int lock = ::open((Path(archive) + "/.lock").c_str(), O_RDWR | O_CREAT, 0640);
        EXPECT_EQ(::flock(lock, LOCK_EX), 0);
        const pid_t holder = fork();  // has the lock by its copy of the descriptor
        if (holder == 0)
            for (;;)
                ::pause();
        ::close(lock);
        return holder;
    }
    static void Release(pid_t holder)
    {
        ::kill(holder, SIGKILL);
        EXPECT_EQ(::waitpid(holder, nullptr, 0), holder);
    }
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

// Day 0, and every other number that is no day, is due once on the last day of a month as on
// others.
TEST_F(IndexSchedule, NoConfigurationStartsAWorkerTwiceForAMoment)
{
    for (const char* keys : {"ArchiveIndexFrequency = Monthly\n",
                             "ArchiveIndexFrequency = Monthly\nArchiveDayOfMonth = -1\n",
                             "ArchiveIndexFrequency = Monthly\nArchiveDayOfMonth = -366\n",
                             "ArchiveIndexFrequency = Weekly\nArchiveDayOfWeek = -7\n",
                             "ArchiveIndexFrequency = Weekly\nArchiveDayOfWeek = 2147483647\n",
                             "ArchiveIndexTime = -48:00\n", "ArchiveIndexTime = 0:-9999\n",
                             "ArchiveIndexTime = 99999:9\n"}) {
        for (const int day : {21, 22, 49}) {  // November 30, December 1 and 28
            SCOPED_TRACE(std::string(keys) + std::to_string(day));
            clock.now = kNoon + day * 86400;
            Set(keys);
            Write("data/index.dt", "0");
            RunArchiveIndexSchedule();
            WaitForWorker();
            EXPECT_TRUE(log.HasPart("Time to update"));
            EXPECT_GT(Stored(), clock.now);
            log.Clear();
            RunArchiveIndexSchedule();
            EXPECT_EQ(Log(), "");
        }
    }
}

TEST_F(IndexSchedule, AMomentThatCannotBeWrittenDownIsWorkedForOnce)
{
    Set("");
    Write("data/index.dt", "0");
    log.ExpectError("Unable to write file: " + Path("data") + "/index.dt");
    files.Watch({"index.dt"});
    files.FailNth(FileCall::kWrite, 1, 3);
    for (int i = 0; i < 3; ++i) {
        RunArchiveIndexSchedule();
        WaitForWorker();
    }
    EXPECT_EQ(Stored(), 0);
    RunArchiveIndexSchedule();
    WaitForWorker();
    EXPECT_EQ(Stored(), kNoon + 12 * 3600);
    int started = 0;
    for (const CapturedLog::Line& line : log.Lines())
        started += line.text.starts_with("Time to update") ? 1 : 0;
    EXPECT_EQ(started, 1);
    log.Clear();
    Write("data/index.dt", "0");  // an operator wants pages now
    RunArchiveIndexSchedule();
    WaitForWorker();
    EXPECT_TRUE(log.HasPart("Time to update"));
}

// A worker that takes longer than the time between two moments.
TEST_F(IndexSchedule, ASecondWorkerWaitsForTheFirst)
{
    Set("");
    Write("data/garden@lists.example.org/archive/index.db", "");
    const pid_t holder = HoldWriterLock("data/garden@lists.example.org/archive");
    Write("data/index.dt", "0");
    RunArchiveIndexSchedule();
    ASSERT_TRUE(ArchiveWorkerRuns());
    log.Clear();
    Write("data/index.dt", "0");
    RunArchiveIndexSchedule();
    EXPECT_FALSE(log.HasPart("Time to update"));
    EXPECT_EQ(Stored(), 0) << "it is due still";
    Release(holder);
    WaitForWorker();
    RunArchiveIndexSchedule();
    EXPECT_TRUE(log.HasPart("Time to update"));
    WaitForWorker();
}

// The worker makes the pages of all lists with lists of its own; one whose archive fails concerns
// no other.
TEST_F(IndexSchedule, WorkerWalksAllListsWhateverBecomesOfEach)
{
    Write("data/garden@lists.example.org/archive/00000001.msg",
          "From: a@example.com\r\nSubject: first\r\n\r\nx\r\n");
    const std::string walk =
        Lines({"5 Generating archive index pages of garden@lists.example.org mailing list",
               "5 Generating archive index pages of board@lists.example.org mailing list",
               "5 Generating archive index pages of club@lists.example.org mailing list",
               "5 Releasing thread..."});
    GenerateArchiveIndexes();
    EXPECT_EQ(Log(5), walk);
    log.Clear();
    Write("data/garden@lists.example.org/archive/index.db", "this is no index");
    std::filesystem::remove(Path("data/board@lists.example.org/archive/index.db"));
    Write("data/board@lists.example.org/archive/index.db/file", "");
    log.ExpectError("garden@lists.example.org/archive/index.db is damaged");
    log.ExpectError("board@lists.example.org/archive/index.db cannot be");
    GenerateArchiveIndexes();
    for (const char* list : {"garden", "board", "club"})
        EXPECT_TRUE(log.HasPart(std::string("of ") + list + "@lists.example.org"));
    EXPECT_TRUE(
        std::filesystem::exists(Path("data/club@lists.example.org/archive/html/index.html")));
    EXPECT_TRUE(log.Has(5, "Releasing thread..."));
}

}  // namespace
}  // namespace dl::testing
