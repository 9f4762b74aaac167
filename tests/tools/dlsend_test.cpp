// The program dlsend itself: how it starts and ends, killed at random moments, and with another's
// mail server.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <random>
#include <set>

#include "tests/support/child.h"
#include "tests/support/fixture.h"
#include "tests/support/queued.h"
#include "tests/support/scripted_relay.h"

namespace dl::testing
{

class DlsendTest : public Fixture
{
 protected:
    // The program has the real time, by which it would give an old message up.
    DlsendTest() { clock.now = std::time(nullptr); }
    ~DlsendTest() override { MQEnd(); }

    void Site(const std::string& relay)
    {
        Configure("[Queue]\nPath = " + Path("queue") +
                  "\nMaxAttempts = 1000000\n[Process]\nRunDir = " + Path("run") +
                  "\n[Log]\nTarget = file\nFile = " + Path("dl.log") +
                  "\n[Relay]\nRetryMin = 1\nRetryMax = 1\n" + relay);
        setenv("DLMANAGER_CONF", Path("conf").c_str(), 1);
        ASSERT_TRUE(MQInitAt(Path("queue")));
    }
    static void Put(const std::vector<std::string>& to, const std::string& text)
    {
        (void)PutEntry(text, "dlout", "list-owner@example.org", to);
    }
    [[nodiscard]] pid_t Start(const std::vector<const char*>& arguments) const
    {
        return StartProgram(DL_BINARY "/bin/dlsend", arguments);
    }
    [[nodiscard]] pid_t StartProgram(const std::string& program,
                                     std::vector<const char*> arguments) const
    {
        arguments.insert(arguments.begin(), program.c_str());
        arguments.push_back(nullptr);
        const std::string errors = Path("stderr");
        return InBackground([&] {
            dup2(open(errors.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), 2);
            execv(program.c_str(), const_cast<char**>(arguments.data()));
            return 127;
        });
    }
    // The exit status; -1 when it was ended because it took more than a minute, -signal when
    // killed.
    static int Wait(pid_t child, int seconds = 60)
    {
        siginfo_t ended{};
        for (int i = 0; i < seconds * 100 && ended.si_pid == 0; ++i, usleep(10'000))
            (void)waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT);
        if (ended.si_pid != 0)
            return StatusOf(child);
        kill(child, SIGKILL);
        (void)StatusOf(child);
        return -1;
    }
    int Once() { return Wait(Start({"--once"})); }
    template <typename Condition>
    static bool Until(Condition condition)
    {
        for (int i = 0; i < 1000 && !condition(); ++i)
            usleep(10'000);
        return condition();
    }
};

TEST_F(DlsendTest, OnceSaysWhetherSomethingWaits)
{
    Site("Port = " + std::to_string(FreePort()));
    EXPECT_EQ(Wait(Start({"--nonsense"})), 64);
    EXPECT_EQ(Wait(Start({"--once", "more"})), 64);
    EXPECT_EQ(Once(), 0) << "nothing there";
    Put(Addresses(3, "a"), "x\r\n");
    EXPECT_EQ(Once(), 75) << "no relay";
    EXPECT_NE(ReadFile(Path("stderr")).find("cannot be used: Connection refused"),
              std::string::npos);
    ScriptedRelay relay;
    Site("Port = " + std::to_string(relay.Port()));
    EXPECT_EQ(Once(), 0);
    EXPECT_EQ(relay.Recipients().size(), 3U);
    Configure("[Queue]\nPath = /proc/none/queue\n");
    EXPECT_EQ(Once(), 69);
}

TEST_F(DlsendTest, RunsUntilItIsToldToEndAndGivesTheRestBack)
{
    std::atomic<bool> slow{false};
    std::atomic<int> waiting{0};
    ScriptedRelay relay([&](const RelayStep& step) {
        if (step.verb == "." && slow) {
            ++waiting;
            usleep(700'000);
        }
        return std::nullopt;
    });
    Site("Port = " + std::to_string(relay.Port()) + "\nMaxRecipients = 10\nConnections = 2\n");
    const pid_t daemon = Start({});
    ASSERT_TRUE(Until([&] { return ReadFile(Path("run/dlsend.status")).starts_with("Running"); }));
    EXPECT_EQ(Wait(Start({})), 69) << "a second one";
    Put(Addresses(35, "a"), "x\r\n");
    ASSERT_TRUE(Until([&] { return relay.Recipients().size() == 35; }));
    slow = true;
    Put(Addresses(35, "b"), "x\r\n");
    Put(Addresses(1, "c"), "x\r\n");
    ASSERT_TRUE(Until([&] { return waiting == 2; }));
    ASSERT_EQ(kill(daemon, SIGTERM), 0);
    EXPECT_EQ(Wait(daemon), 0);
    EXPECT_FALSE(std::filesystem::exists(Path("run/dlsend.pid")));
    const std::size_t done = relay.Recipients().size();
    EXPECT_GT(done, 35U) << "what was under way came to its end";
    EXPECT_LT(done, 71U);
    for (const QueueItem& item : QueueItems("dlout"))
        EXPECT_TRUE(!item.taken && item.attempts == 0);
    slow = false;
    EXPECT_EQ(Once(), 0);
    EXPECT_EQ(relay.Recipients().size(), 71U);
    EXPECT_EQ(waiting, 2);
    EXPECT_NE(ReadFile(Path("dlsend.log")).find("Relayed "), std::string::npos);
}

// A connection begins its next transaction only when the answer to the one before is on disk. So a
// recipient may get a message twice only when the first time was the last on its connection.
TEST_F(DlsendTest, KilledAtRandomMomentsItLosesNothingAndRepeatsOnlyWhatHadNoAnswer)
{
    constexpr int kKills = 70;
    const char* given = std::getenv("DL_CRASH_SEED");
    const unsigned seed = given ? static_cast<unsigned>(std::atoi(given)) : std::random_device()();
    std::printf("DL_CRASH_SEED=%u\n", seed);
    std::mt19937 random(seed);
    ScriptedRelay relay([](const RelayStep& step) -> std::optional<RelayReaction> {
        if (step.verb == ".")
            usleep(2000);
        if (step.verb == "RCPT" && step.line.find("later") != std::string::npos &&
            step.connection < 100)
            return RelayReaction{"450 4.2.0 later"};
        return std::nullopt;
    });
    Site("Port = " + std::to_string(relay.Port()) + "\nMaxRecipients = 8\n");
    std::set<std::string> wanted;
    int entry = 0;
    const auto put = [&](int count) {
        std::vector<std::string> members = Addresses(count, "e" + std::to_string(entry++) + "-");
        if (entry % 7 == 0)
            members.push_back("later" + std::to_string(entry) + "@example.org");
        Put(members, "entry\r\n");
        wanted.insert(members.begin(), members.end());
    };
    for (int i = 0; i < 10; ++i)
        put(i % 3 == 0 ? 1000 : 20);
    int running = 0;
    for (int kills = 0; kills < kKills && !HasFatalFailure(); ++kills) {
        const pid_t child = Start({});
        const std::size_t before = relay.Messages().size();
        // Most of the time is its start's; a kill then proves little.
        (void)Until(
            [&] { return relay.Messages().size() > before || relay.Connections() > 20'000; });
        usleep(static_cast<useconds_t>(random() % 40'000));
        running += relay.Messages().size() > before ? 1 : 0;
        ASSERT_EQ(kill(child, SIGKILL), 0);
        ASSERT_EQ(Wait(child), -SIGKILL);
        put(static_cast<int>(random() % 300));
        if (kills % 10 == 9)
            put(1);
    }
    int last = 75;
    for (int i = 0; i < 60 && last == 75; ++i) {
        last = Once();
        usleep(500'000);
    }
    EXPECT_EQ(last, 0);

    const std::vector<RelayedMessage> messages = relay.Messages();
    std::map<int, std::size_t> last_of;  // connection
    for (std::size_t i = 0; i < messages.size(); ++i)
        last_of[messages[i].connection] = i;
    std::map<std::string, std::size_t> got;
    std::size_t repeated = 0;
    for (std::size_t i = 0; i < messages.size(); ++i)
        for (const std::string& recipient : messages[i].recipients) {
            const auto [place, is_new] = got.try_emplace(recipient, i);
            if (is_new)
                continue;
            ++repeated;
            EXPECT_EQ(last_of[messages[place->second].connection], place->second)
                << recipient << " got it twice after the answer was written down";
            place->second = i;
        }
    EXPECT_EQ(got.size(), wanted.size());
    for (const std::string& recipient : wanted)
        EXPECT_TRUE(got.count(recipient)) << "lost: " << recipient;
    std::printf("%d kills, %d in the middle of work; %zu messages, %zu of %zu recipients twice\n",
                kKills, running, messages.size(), repeated, wanted.size());
    EXPECT_GE(running, 60);
    EXPECT_LE(repeated, static_cast<std::size_t>(kKills) * 4 * 8);
}

// The test server of another mail system, when it is installed.
TEST_F(DlsendTest, SpeaksWithAnotherServer)
{
    const std::string sink = "/usr/sbin/smtp-sink";
    if (!std::filesystem::exists(sink))
        GTEST_SKIP() << sink << " is not installed";
    for (const bool lmtp : {false, true}) {
        const std::string port = std::to_string(FreePort());
        const std::string dump = Path(lmtp ? "lmtp" : "smtp");
        std::filesystem::create_directory(dump);
        chmod(dump.c_str(), 0777);
        chmod(Path("").c_str(), 0755);
        const std::string where = "127.0.0.1:" + port;
        const std::string file = dump + "/mail";
        std::vector<const char*> arguments = {"-D", file.c_str()};
        if (geteuid() == 0)
            arguments.insert(arguments.end(), {"-u", "nobody"});
        if (lmtp)
            arguments.push_back("-L");
        arguments.insert(arguments.end(), {where.c_str(), "100"});
        const pid_t server = StartProgram(sink, arguments);
        Site("Port = " + port + "\nProtocol = " + (lmtp ? "LMTP" : "smtp") + "\n");
        Put(Addresses(350, "a"), "Subject: x\n\n.\n..dots\nend");
        Put({"one@example.org"}, "Subject: \xC3\xBC\r\n\r\n" + std::string(2000, 'l') + "\r\n");
        int status = 75;
        for (int i = 0; i < 50 && status == 75; ++i, usleep(100'000))
            status = Once();
        kill(server, SIGTERM);
        Wait(server, 10);
        EXPECT_EQ(status, 0);
        const std::string mail = ReadFile(file);
        std::size_t recipients = 0;
        for (std::size_t at = 0; (at = mail.find("X-Rcpt-Args:", at)) != std::string::npos; ++at)
            ++recipients;
        EXPECT_EQ(recipients, 351U);
        EXPECT_NE(mail.find("Subject: x\n\n.\n..dots\nend\n"), std::string::npos);
        EXPECT_NE(mail.find(std::string(2000, 'l')), std::string::npos);
        EXPECT_NE(mail.find("BODY=8BITMIME"), std::string::npos);
        EXPECT_NE(mail.find(lmtp ? "X-Client-Proto: LMTP" : "X-Client-Proto: ESMTP"),
                  std::string::npos);
    }
}

}  // namespace dl::testing
