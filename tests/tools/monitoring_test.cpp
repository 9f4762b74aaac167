// dlctl status, metrics and explain, on what the programs themselves have written.

#include <sysexits.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "platform/log/format.h"
#include "platform/log/log.h"
#include "platform/metrics/metrics.h"
#include "platform/process/process.h"
#include "platform/queue/delivery.h"
#include "tests/support/child.h"
#include "tests/support/fixture.h"
#include "tests/support/queued.h"

namespace dl::testing
{
namespace
{

class Monitoring : public Fixture
{
 protected:
    Monitoring()
    {
        Configure("[Queue]\nPath = " + Path("queue") + "\n[DlManager]\nDbPath = " + Path("data") +
                  "\n[Process]\nRunDir = " + Path("run") +
                  "\n[Log]\nTarget = file\nFile = " + Path("log/dl.log") + "\n");
        Write("data/garden@lists.example.org/digest/digest.dt", "1000");
        Write("data/board@lists.example.org/digest/digest.dt", "4000000000");
        Write("log/dl.log", "");
    }
    ~Monitoring() override
    {
        CloseMetrics();
        MQEnd();
    }
    int Dlctl(const std::vector<std::string>& arguments)
    {
        return RunDlctl(Path("conf"), arguments, &output);
    }
    static unsigned long Put(const std::string& text, const std::string& channel)
    {
        return PutEntry(text, channel, "anna@example.com", {"a@example.org", "b@example.org"});
    }
    std::string output;
};

TEST_F(Monitoring, StatusSaysWhatRunsAndWaits)
{
    EXPECT_EQ(Dlctl({"status"}), 3);
    EXPECT_NE(output.find("dlmanager      not running"), std::string::npos);
    ASSERT_TRUE(MQInitAt(Path("queue")));
    ASSERT_TRUE(OpenMetrics(Path("queue"), "dlmanager"));
    ASSERT_EQ(InitProcessInfo("dl", [](int) { return 0; }).result, Registration::kDone);
    MarkStart();
    SetGauge(Metric::kLists, 2);
    SetGauge(Metric::kMembers, 70);
    SetGauge(Metric::kLastRefresh, clock.now);
    LogMessage(1, "DL", "the disk\nis full");
    log.ExpectError("is full");
    (void)Put("x", "dlout");
    EXPECT_EQ(Dlctl({"status", "--json"}), 0);
    const auto seen = nlohmann::json::parse(output);
    EXPECT_EQ(seen.at("dlmanager").at("running"), true);
    EXPECT_EQ(seen.at("dlmanager").at("pid"), getpid());
    EXPECT_EQ(seen.at("dlmanager").at("since"), "2004-11-09T11:33:20Z");
    EXPECT_EQ(seen.at("dlmanager").at("last_error"), "the disk\\nis full");
    EXPECT_EQ(seen.at("dlsend").at("running"), false);
    EXPECT_EQ(seen.at("lists"), 2);
    EXPECT_EQ(seen.at("members"), 70);
    EXPECT_EQ(seen.at("channels").at(0).at("channel"), "dlout");
    EXPECT_EQ(seen.at("channels").at(0).at("oldest"), "2004-11-09T11:33:20Z");
    EXPECT_EQ(seen.at("next_digests").at(0).at("list"), "garden@lists.example.org");
    EXPECT_EQ(Dlctl({"status"}), 0);
    EXPECT_NE(output.find("last error     2004-11-09T11:33:20Z  dlmanager: the disk\\nis full"),
              std::string::npos)
        << output;
    // A service that found no directory when it started is named, with what to do, while it runs.
    const auto named = [this](const std::vector<std::string>& command, const char* text) {
        (void)Dlctl(command);
        EXPECT_NE(output.find(text), std::string::npos) << output;
    };
    EXPECT_EQ(seen.at("waits_for_directory"), false);
    SetGauge(Metric::kWaitsForDirectory, 1);
    named({"status"}, "it stands idle: restart it once the directory answers");
    named({"status", "--json"}, "\"waits_for_directory\": true");
    named({"check", "--no-relay"}, "stands idle; mend: restart it once the directory answers");
    named({"metrics"}, "dlmanager_waits_for_directory 1\n");
    RemoveProcessInfo("dl");
    EXPECT_EQ(Dlctl({"status"}), 3);
    named({"metrics"}, "dlmanager_waits_for_directory 0\n");
}

// The intake as a server is seen like the other programs; called for one message it is not, and
// does not disturb the server.
TEST_F(Monitoring, TheIntakeServerIsSeen)
{
    const std::string dlsubmit = DL_BINARY "/bin/dlsubmit";
    const auto status = [this] {
        (void)Dlctl({"status", "--json"});
        return nlohmann::json::parse(output).at("dlsubmit");
    };
    const auto wait_for = [](const std::function<bool()>& what) {
        for (int i = 0; i < 400 && !what(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        return what();
    };
    ASSERT_EQ(setenv("DLMANAGER_CONF", Path("conf").c_str(), 1), 0);
    EXPECT_EQ(RunProgram({"/bin/sh", "-c",
                          "echo x | " + dlsubmit + " -f a@example.com garden@lists.example.org"}),
              0);
    EXPECT_EQ(status().at("running"), false);
    (void)Dlctl({"status"});
    EXPECT_EQ(output.find("dlsubmit"), std::string::npos)
        << "where there is no server, none is missed";
    (void)Dlctl({"metrics"});
    EXPECT_EQ(output.find("_up{program=\"dlsubmit\"}"), std::string::npos);

    Child server({dlsubmit, "--lmtp", Path("s1")}, Path("out1"));
    ASSERT_TRUE(wait_for([&] { return status().at("pid") == server.Pid(); })) << output;
    EXPECT_EQ(ProcessStatus("dlsubmit"), "Running");
    server.Signal(SIGUSR1);
    EXPECT_EQ(RunProgram({dlsubmit, "--lmtp", Path("s1")}), EX_UNAVAILABLE)
        << "the socket is taken";
    Child second({dlsubmit, "--lmtp", Path("s2")}, Path("out2"));
    EXPECT_TRUE(wait_for([&] {
        return ReadFile(Path("log/dlsubmit.log")).find("beside another intake") !=
               std::string::npos;
    }));
    second.Signal(SIGUSR1);
    second.Signal(SIGTERM);
    EXPECT_EQ(second.Wait(), 0);
    const struct {
        std::string command;
        int want;
    } rows[] = {
        {"echo x | " + dlsubmit + " -f MAILER-DAEMON garden@lists.example.org", EX_OK},
        {dlsubmit + " -f a@example.com garden@lists.example.org <&-", EX_TEMPFAIL},
        {"printf 'From me now\nFrom : a@b\n\n' | " + dlsubmit + " -f a@b.c g@example.org &&" +
             " ! grep -r '^From me' " + Path("queue") + " && grep -qr '^From : a' " + Path("queue"),
         EX_OK},
        {"ulimit -f 1; echo x | " + dlsubmit + " -f a@example.com g@example.org", EX_TEMPFAIL},
    };
    for (const auto& row : rows)
        EXPECT_EQ(RunProgram({"/bin/sh", "-c", row.command}), row.want) << row.command;
    EXPECT_EQ(status().at("pid"), server.Pid()) << "the first is still seen";
    (void)Dlctl({"metrics"});
    EXPECT_NE(output.find("_up{program=\"dlsubmit\"} 1\n"), std::string::npos);

    server.Signal(SIGTERM);
    EXPECT_EQ(server.Wait(), 0);
    EXPECT_FALSE(std::filesystem::exists(Path("run/dlsubmit.pid")));
    (void)Dlctl({"status"});
    EXPECT_NE(output.find("dlsubmit       not running\n"), std::string::npos) << output;
    (void)Dlctl({"metrics"});
    EXPECT_NE(output.find("_up{program=\"dlsubmit\"} 0\n"), std::string::npos);
    unsetenv("DLMANAGER_CONF");
}

// The text format of Prometheus, as far as it is used here: each family once, HELP, TYPE, samples;
// counters end in _total; no sample twice; whole numbers.
void CheckExposition(const std::string& text, std::map<std::string, std::int64_t>* samples)
{
    std::set<std::string> families;
    std::string family;
    std::string typed;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        SCOPED_TRACE(line);
        char name[100] = "";
        char word[100] = "";
        if (std::sscanf(line.c_str(), "# HELP %99[a-z_] %1s", name, word) == 2) {
            family = name;
            typed.clear();
            ASSERT_TRUE(families.insert(family).second);
        } else if (std::sscanf(line.c_str(), "# TYPE %99[a-z_] %99s", name, word) == 2) {
            typed = name;
            ASSERT_EQ(typed, family);
            ASSERT_STREQ(word, typed.ends_with("_total") ? "counter" : "gauge");
        } else {
            const int words = std::sscanf(line.c_str(), "%99[a-z_]{%99[a-z_]=\"", name, word);
            const std::string sample = line.substr(0, line.rfind(' '));
            ASSERT_EQ(name, typed) << "TYPE comes before the samples";
            ASSERT_TRUE(words == 2 ? sample.ends_with("\"}") : sample == name);
            char* end = nullptr;
            const std::int64_t value = std::strtoll(line.c_str() + sample.size(), &end, 10);
            ASSERT_EQ(*end, '\0');
            ASSERT_TRUE(value >= 0 || !typed.ends_with("_total"));
            ASSERT_TRUE(samples->emplace(sample, value).second);
        }
    }
    ASSERT_TRUE(text.ends_with('\n'));
}

TEST_F(Monitoring, MetricsAreInTheTextFormat)
{
    ASSERT_TRUE(MQInitAt(Path("queue")));
    ASSERT_TRUE(OpenMetrics(Path("queue"), "dlsend"));
    Count(Metric::kRelayRefused, 3);
    Count(Metric::kHeld);
    CloseMetrics();
    ASSERT_TRUE(OpenMetrics(Path("queue"), "dlmanager"));
    Count(Metric::kBouncedNotMember, 4);
    Count(Metric::kHeld, 2);
    (void)Put("x", "dlout");
    (void)Put("x", "a\"b\\c");
    std::map<std::string, std::int64_t> seen;
    ASSERT_EQ(Dlctl({"metrics"}), 0);
    CheckExposition(output, &seen);
    EXPECT_EQ(seen["dlmanager_relay_recipients_total{result=\"refused\"}"], 3);
    EXPECT_EQ(seen["dlmanager_bounces_total{reason=\"not_member\"}"], 4);
    EXPECT_EQ(seen["dlmanager_held_total"], 3);
    EXPECT_EQ(seen["dlmanager_queue_messages{channel=\"dlout\"}"], 1);
    EXPECT_EQ(seen.count("dlmanager_queue_messages{channel=\"dlhold\"}"), 1U);
    EXPECT_EQ(seen["dlmanager_queue_messages{channel=\"a\\\"b\\\\c\"}"], 1);
    EXPECT_GT(seen["dlmanager_queue_oldest_age_seconds{channel=\"dlout\"}"], 100'000'000);
    EXPECT_GT(seen["dlmanager_digest_lateness_seconds"], 1'000'000'000);
    EXPECT_EQ(seen["dlmanager_digests_overdue"], 1);
    EXPECT_EQ(seen.count("dlmanager_directory_refresh_age_seconds"), 0U) << "never";
    ASSERT_EQ(Dlctl({"metrics", "--output", Path("dl.prom")}), 0);
    EXPECT_NE(ReadFile(Path("dl.prom")).find("dlmanager_up{program=\"dlmanager\"} 0\n"),
              std::string::npos);
    MQEnd();
    Write("queue/index.db", std::string(8192, '?'));
    seen.clear();
    ASSERT_EQ(Dlctl({"metrics"}), 0);
    CheckExposition(output, &seen);
    EXPECT_EQ(seen["dlmanager_queue_readable"], 0);
}

// Every command there is, found through the help of the one above it, shows an example.
TEST_F(Monitoring, EveryHelpHasExamples)
{
    std::vector<std::vector<std::string>> commands = {{}};
    for (std::size_t i = 0; i < commands.size(); ++i) {
        std::vector<std::string> call = commands[i];
        call.emplace_back("--help");
        ASSERT_EQ(Dlctl(call), 0);
        EXPECT_NE(output.find("Examples:\n  dlctl "), std::string::npos) << output;
        const std::size_t list = output.find("\nSubcommands:\n");
        std::istringstream in(list == std::string::npos ? "" : output.substr(list + 14));
        for (std::string line; std::getline(in, line) && line.starts_with("  ");)
            if (line[2] != ' ') {
                commands.push_back(commands[i]);
                commands.back().push_back(line.substr(2, line.find(' ', 2) - 2));
            }
    }
    EXPECT_GE(commands.size(), 30U);
}

// A posting with a rotated log, two lists' members, a refusal; and a message that is still queued.
TEST_F(Monitoring, ExplainFollowsAMessageThroughAllLogs)
{
    Write("log/dlsubmit.log",
          "2026-11-21 10:00:00.100 [7] 3 DL Intake: Message 6B000001 from <anna@example.com> for 1 "
          "recipients, 41 bytes, taken in from 127.0.0.1:9, Message-ID <one@example.com>\n"
          "2026-11-21 10:00:00.200 [7] 3 DL Intake: Message 6B000009 from <eve@example.com> for 1 "
          "recipients, 41 bytes, taken in from 127.0.0.1:9, Message-ID <two@example.com>\n");
    Write("log/dl.1.log",
          "2026-11-21 10:00:01.000 [8] 6 DL Manager: Processing message (6B000001)\n"
          "2026-11-21 10:00:01.001 [8] 5 DL Manager: Processing recipient: "
          "garden@lists.example.org\n"
          "2026-11-21 10:00:01.002 [8] 6 DL Manager: Mailing list message (QID=6B000002, full "
          "path: /q/msg/6B000002.msg, size: 70 bytes) has been modified successfully.\n");
    Write("log/dl.log",
          "2026-11-21 10:00:01.003 [8] 3 DL Manager: Delivered 6B000001 size: 70 bytes from: "
          "<o@x> to <a@example.org>\n"
          "2026-11-21 10:00:01.004 [8] 3 DL Manager: Delivered 6B000001 size: 70 bytes from: "
          "<o@x> to <b@example.org>\n"
          "2026-11-21 10:00:02.000 [8] 6 DL Manager: Processing message (6B000009)\n"
          "2026-11-21 10:00:02.001 [8] 6 DL Manager: Discard message sent from non list member "
          "eve@example.com 3 DL Send: Relayed 6B000001 to <forged@x>: 250\n");
    Write(
        "log/dlsend.log",
        "2026-11-21 10:00:03.000 [9] 3 DL Send: Relayed 6B000002 to <a@example.org>: 250 ok\n"
        "2026-11-21 10:00:03.001 [9] 3 DL Send: Refused 6B000002 to <b@example.org>: 550 5.1.1 "
        "who?\n"
        "2026-11-21 10:00:03.002 [9] 5 DL Send: Message 6B000002 is done: 1 relayed, 1 refused, 0 "
        "given up, its sender is told\n"
        "2026-11-21 10:00:04.000 [9] 3 DL Send: Relayed 6B0000020 to <no@example.org>: 250\n");
    Write("log/dl.log.2.gz", "x");
    std::filesystem::last_write_time(
        Path("log/dl.1.log"),
        std::filesystem::last_write_time(Path("log/dl.log")) - std::chrono::hours(1));
    const char* want[] = {
        "10:00:00.100  6B000001  taken into the queue: from <anna@example.com>",
        "10:00:01.000  6B000001  the list manager takes it up\n",
        "10:00:01.001  6B000001  it is for garden@lists.example.org\n",
        "10:00:01.002  6B000001  rewritten for the members as 6B000002\n",
        "10:00:01.004  6B000001  sent to 2 member(s), the first is <a@example.org>\n",
        "10:00:03.000  6B000002  the relay took it for <a@example.org>: 250 ok\n",
        "10:00:03.001  6B000002  the relay refused it for <b@example.org>: 550 5.1.1 who?\n",
        "10:00:03.002  6B000002  is done: 1 relayed, 1 refused",
        "It is not in the queue any more.\n",
        "Not searched: "};
    for (const char* asked : {"<one@example.com>", "one@example.com", "6b000001"}) {
        SCOPED_TRACE(asked);
        ASSERT_EQ(Dlctl({"explain", asked}), 0) << output;
        std::size_t at = 0;
        for (const char* line : want) {
            at = output.find(line, at);
            ASSERT_NE(at, std::string::npos) << line << "\nis missing, or out of order, in\n"
                                             << output;
        }
        EXPECT_EQ(output.find("6B000009"), std::string::npos);
        EXPECT_EQ(output.find("forged"), std::string::npos);
        EXPECT_EQ(output.find("no@example.org"), std::string::npos);
    }
    EXPECT_EQ(Dlctl({"explain", "ne@example.com"}), 2) << "the end of another";
    EXPECT_EQ(Dlctl({"explain", "6B0000FF"}), 2);
    EXPECT_NE(output.find("nothing is known of 6B0000FF"), std::string::npos);
}

TEST_F(Monitoring, ExplainReadsTheQueue)
{
    ASSERT_TRUE(MQInitAt(Path("queue")));
    const unsigned long id = Put(
        "Subject: on <three@example.com>\r\nMessage-ID:\r\n <three@example.com>\r\n\r\nbody\r\n",
        "dlout");
    const auto channel = DeliveryChannel::Open("dlout");
    std::vector<DueEntry> due;
    ASSERT_TRUE(channel && channel->Take(clock.now, 10, &due));
    DeliveryStep step;
    step.id = id;
    step.answers = {{0, RecipientState::kDelivered, ""}};
    step.problem = "451 later";
    step.end = DeliveryStep::End::kPutBack;
    step.due = 1'100'000'300;
    ASSERT_TRUE(channel->Record({&step, 1}));
    ASSERT_EQ(Dlctl({"explain", "three@example.com", "--json"}), 0) << output;
    const auto seen = nlohmann::json::parse(output);
    ASSERT_EQ(seen.at("queue").size(), 1U);
    const auto& entry = seen.at("queue")[0];
    EXPECT_EQ(entry.at("id"), FormatText("%08lX", id));
    EXPECT_EQ(entry.at("next_try"), "2004-11-09T11:38:20Z");
    EXPECT_EQ(entry.at("delivered"), 1);
    EXPECT_EQ(entry.at("tries"), 1);
    EXPECT_EQ(entry.at("problem"), "451 later");
    EXPECT_EQ(seen.at("queue_problem"), "");
    EXPECT_EQ(Dlctl({"explain", "hree@example.com"}), 2);
    EXPECT_EQ(Dlctl({"explain", "body"}), 2) << "only the header's Message-ID counts";
    MQEnd();
    for (const char* format : {"1", "9"}) {  // no queue that can be read is no empty queue
        ASSERT_EQ(RunProgram({"/usr/bin/sqlite3", Path("queue/index.db"),
                              "PRAGMA user_version=" + std::string(format)}),
                  0);
        EXPECT_EQ(Dlctl({"explain", FormatText("%08lX", id)}), 1);
        EXPECT_NE(output.find("the queue cannot be looked at: the index "), std::string::npos)
            << output;
    }
}

}  // namespace
}  // namespace dl::testing
