// The service from its start to its end: its timers, what is done at a refresh, faults at the
// start, and the orderly end. Each run is a process of its own, with a clock that jumps from turn
// to turn.

#include "core/service.h"

#include <csignal>
#include <functional>
#include <map>

#include "platform/process/process.h"
#include "tests/support/child.h"
#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

constexpr char kGarden[] = "garden@lists.example.org";
constexpr std::time_t kTurn = 10;     // seconds
constexpr std::time_t kAgeDays = 10;  // of the files that lie there at the start

// Seconds since the start of the service, and what happens then.
using Events = std::map<std::time_t, std::function<void()>>;

class ScriptedClock : public Clock
{
 public:
    explicit ScriptedClock(Events events)
        : begin_(std::time(nullptr) + kAgeDays * 86'400), now_(begin_), events_(std::move(events))
    {
    }
    std::time_t Now() override { return now_; }
    void SleepFor(std::chrono::milliseconds /*time*/) override
    {
        now_ += kTurn;
        while (!events_.empty() && events_.begin()->first <= now_ - begin_) {
            events_.begin()->second();
            events_.erase(events_.begin());
        }
    }

 private:
    const std::time_t begin_;
    std::time_t now_;
    Events events_;
};

class ServiceTest : public Fixture
{
 protected:
    ServiceTest()
    {
        WriteLists({"garden"});
        Write("data/" + std::string(kGarden) + "/digest/digest.dt", "0");
        SetUpSite("");
    }
    void SetUpSite(const std::string& more)
    {
        Configure(more + "[Ldap]\nFile = " + Path("lists.ldif") +
                  "\n[Queue]\nPath = " + Path("queue") +
                  "\n[DlManager]\nCacheRefreshInterval = 6\nDbPath = " + Path("data") +
                  "\n[Process]\nRunDir = " + Path("run") +
                  "\n[Log]\nTarget = file\nFile = " + Path("log") + "\n");
    }
    void WriteLists(const std::vector<std::string>& names)
    {
        std::string text = "dn: dc=example,dc=org\nobjectClass: domain\ndc: example\n";
        for (const std::string& name : names)
            text += "\ndn: mail=" + name + "@lists.example.org,dc=example,dc=org\n" +
                    "objectClass: qvlist\nmail: " + name + "@lists.example.org\narchive: 0\n";
        Write("lists.ldif", text);
    }
    // Runs the service in a child until something ends it; its status.
    [[nodiscard]] static int Run(const Events& events)
    {
        return StatusOf(InBackground([&] {
            alarm(60);
            ScriptedClock script(events);
            const ScopedClock installed(&script);
            std::string error;
            (void)SetLogSink(nullptr);
            if (!OpenLog(ReadLogSettings(), "dlmanager", &error))
                return 99;
            const int status = Service().Run();
            CloseLog();
            return status;
        }));
    }
    // How often each line stands in the log.
    [[nodiscard]] int Count(const std::string& line) const
    {
        const std::string text = ReadFile(Path("log"));
        int count = 0;
        for (std::size_t at = text.find(line); at != std::string::npos;
             at = text.find(line, at + 1))
            ++count;
        return count;
    }
};

TEST_F(ServiceTest, ItsTimersRunUntilItIsToldToEnd)
{
    const std::string pending = Write("data/" + std::string(kGarden) + "/0000ABCD.cnf",
                                      "subscribe garden@lists.example.org a@example.org\r\n");
    const int status = Run({{500,
                             [&] {
                                 WriteLists({"garden", "new"});
                             }},
                            {1000, [&] {
                                 Write("before", ReadFile(Path("run/dl.status")));
                                 (void)raise(SIGUSR1);
                                 (void)raise(SIGTERM);
                             }}});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Count("Refreshing cache.."), 2) << "after 360 and 720 s";
    EXPECT_EQ(Count("Found mailing list new@lists.example.org"), 1);
    EXPECT_EQ(Count("Time to send message digest for mailing list (" + std::string(kGarden)), 1);
    EXPECT_EQ(Count("is expired after 3 day(s)"), 1);
    EXPECT_EQ(FileSize(pending), -1);
    EXPECT_GT(FileSize(Path("data/index.dt")), 0) << "the archives' schedule was run";
    EXPECT_EQ(ReadFile(Path("before")), "Running\n");
    EXPECT_TRUE(FileNames(Path("run")).empty());
    EXPECT_TRUE(ReadFile(Path("log")).ends_with(" 6 DL Manager: Terminating\n"));
}

TEST_F(ServiceTest, ARefreshThatFailsIsTriedAgainSoon)
{
    const std::string lists = ReadFile(Path("lists.ldif"));
    int before = 0;
    const int status = Run({{200, [&] { Write("lists.ldif", "no LDIF\n"); }},
                            {600,
                             [&] {
                                 before = Count("Refreshing cache..");
                                 Write("lists.ldif", lists);
                             }},
                            {650, [&] { Write("tries", std::to_string(before)); }},
                            {1000, [] { (void)raise(SIGTERM); }}});
    EXPECT_EQ(status, 0);
    // At 360 s, then after pauses of 1, 2, 4, ... 60 s, as the turns allow.
    EXPECT_GE(std::stoi("0" + ReadFile(Path("tries"))), 6);
    EXPECT_LE(std::stoi("0" + ReadFile(Path("tries"))), 12);
    EXPECT_EQ(Count(" 1 DL Manager: The lists cannot be refreshed"), 1);
    EXPECT_EQ(Count(" 5 DL Manager: The lists can be refreshed again"), 1);
}

TEST_F(ServiceTest, FaultsAtTheStartHaveTheirStatus)
{
    const struct {
        const char* name;
        const char* taken;  // a file stands where a folder is needed
        const char* line;
    } rows[] = {
        {"no queue", "queue", "MQInit failed, exiting ..."},
        {"no run folder", "run", "cannot write "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove_all(Path(row.taken));
        Write(row.taken, "");
        EXPECT_EQ(Run({}), 1);
        EXPECT_EQ(Count(row.line), 1) << ReadFile(Path("log"));
        std::filesystem::remove(Path(row.taken));
        EXPECT_FALSE(std::filesystem::exists(Path("run/dl.pid")));
        std::filesystem::remove(Path("log"));
    }
}

TEST_F(ServiceTest, SettingsOfTheLoop)
{
    const struct {
        const char* interval;
        int minutes;
    } intervals[] = {{"6", 6}, {"60", 60}, {"5", 15}, {"1", 15}, {"0", 15}, {"-7", 15}, {"", 15}};
    for (const auto& row : intervals) {
        Configure("[DlManager]\nCacheRefreshInterval = " + std::string(row.interval) + "\n");
        EXPECT_EQ(RefreshInterval(), row.minutes) << row.interval;
    }
    const struct {
        const char* zone;
        const char* want;
    } zones[] = {{"EST5EDT", "EST5EDT"}, {"", "UTC"}, {"xxxnone", "UTC"}, {"XXX", "UTC"}};
    for (const auto& row : zones) {
        SetZone("UTC");
        Configure("[Gateway]\nTimeZone = " + std::string(row.zone) + "\n");
        SetTimeZone();
        EXPECT_STREQ(std::getenv("TZ"), row.want) << row.zone;
    }
}

}  // namespace
}  // namespace dl::testing
