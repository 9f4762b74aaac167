// Entries of a real queue handed over to a scripted relay.

#include "tools/dlsend/handover.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <thread>

#include "tests/support/failing_queue.h"
#include "tests/support/fixture.h"
#include "tests/support/queued.h"
#include "tests/support/scripted_relay.h"

namespace dl::testing
{

constexpr char kOwner[] = "garden-owner@lists.example.org";

class HandoverTest : public Fixture
{
 protected:
    HandoverTest() : folder(Path("queue"))
    {
        Configure("[Connection]\nGatewayHostName = mail\nGatewayDomain = example.org\n");
        settings = ReadRelaySettings();
        settings.relay.answer_timeout = settings.relay.data_timeout = std::chrono::seconds(5);
    }
    ~HandoverTest() override { MQEnd(); }
    void SetUp() override { ASSERT_TRUE(MQInitAt(folder)); }

    static unsigned long Put(const std::vector<std::string>& to, const std::string& sender = kOwner,
                             const std::string& text = "Subject: frost\r\n\r\nCover it.\r\n")
    {
        return PutEntry(text, "dlout", sender, to);
    }
    // One pass; returns whether the channel is empty then.
    bool Pass(const ScriptedRelay& relay)
    {
        settings.relay.port = relay.Port();
        return Pass();
    }
    bool Pass()
    {
        const auto channel = DeliveryChannel::Open("dlout");
        const std::atomic<bool> stop{false};
        Handover(settings, channel.get(), &stop).Run(true);
        std::int64_t due = 0;
        return channel->Waiting(&due) == QueueAnswer::kNo;
    }
    // The texts of the messages in channel "dl", with "<sender> to <recipients>" before each.
    static std::vector<std::string> Reports()
    {
        std::vector<std::string> texts;
        MQContext* channel = OpenMQChannel("dl");
        for (long id = GetFirstMessage(channel, false); id >= 0;
             id = GetNextMessage(channel, false)) {
            const EnvelopeResult found = GetMQEnvelope(static_cast<unsigned long>(id));
            std::string head = found.envelope->SenderAddress() + " to";
            while (const _envRecip* to = found.envelope->recipients.Next())
                head += " " + std::string(to->address) + "(" + std::string(to->channel) + ")";
            texts.push_back(head + "\n" + ReadFile(GetMQPathName(channel, ".msg")));
            EXPECT_TRUE(RemoveMQChannel(channel));
        }
        EXPECT_TRUE(CloseMQChannel(channel));
        return texts;
    }
    static std::multiset<std::string> Set(const std::vector<std::string>& texts)
    {
        return {texts.begin(), texts.end()};
    }
    static std::size_t CountOf(const std::string& text, const std::string& part)
    {
        std::size_t count = 0;
        for (std::size_t at = text.find(part); at != std::string::npos;
             at = text.find(part, at + 1))
            ++count;
        return count;
    }
    [[nodiscard]] std::size_t Lines(int level, const std::string& begin) const
    {
        std::size_t count = 0;
        for (const CapturedLog::Line& line : log.Lines())
            count += line.level == level && line.text.starts_with(begin) ? 1 : 0;
        return count;
    }
    // Reacts to RCPT commands for addresses that begin as given.
    static ScriptedRelay::Script ToRecipients(const std::map<std::string, std::string>& replies)
    {
        return [=](const RelayStep& step) -> std::optional<RelayReaction> {
            for (const auto& [begin, reply] : replies)
                if (step.line.starts_with("RCPT TO:<" + begin))
                    return RelayReaction{reply};
            return std::nullopt;
        };
    }

    const std::string folder;
    RelaySettings settings;
};

TEST_F(HandoverTest, EachRecipientGetsEachMessageOnce)
{
    ScriptedRelay relay;
    std::multiset<std::string> want;
    for (const int count : {250, 1, 37, 100}) {
        const std::vector<std::string> members =
            Addresses(count, "m" + std::to_string(count) + "-");
        Put(members);
        want.insert(members.begin(), members.end());
    }
    EXPECT_TRUE(Pass(relay));
    EXPECT_EQ(Set(relay.Recipients()), want);
    for (const RelayedMessage& message : relay.Messages()) {
        EXPECT_EQ(message.sender, kOwner);
        EXPECT_EQ(message.text, "Subject: frost\r\n\r\nCover it.\r\n");
        EXPECT_LE(message.recipients.size(), 100U);
    }
    EXPECT_LE(relay.Connections(), 4);
    EXPECT_EQ(Lines(3, "Relayed "), 388U);
    EXPECT_TRUE(QueueItems().empty());
    EXPECT_TRUE(std::filesystem::is_empty(folder + "/msg"));
}

TEST_F(HandoverTest, TooManyRecipientsGoIntoFurtherTransactions)
{
    settings.max_recipients = 1000;
    settings.connections = 1;
    const auto too_many = [](const RelayStep& step) {
        return step.verb == "RCPT" && step.accepted >= 100;
    };
    ScriptedRelay relay(When(too_many, {"452 4.5.3 too many"}));
    const std::vector<std::string> members = Addresses(1050);
    Put(members);
    EXPECT_TRUE(Pass(relay));
    EXPECT_EQ(Set(relay.Recipients()), Set(members));
    EXPECT_LE(relay.Messages().size(), 15U);
    EXPECT_LE(relay.Commands().size(), 2500U) << "the relay's limit must be learned";
}

TEST_F(HandoverTest, OneReportTellsTheSenderOfAllWhoAreRefused)
{
    const std::string text = "X: " + std::string(1000, 'x') +
                             "\r\nReceived: by x\r\nSubject: frost\n\r\n--bogus\r\nCover it.\r\n";
    ScriptedRelay relay(ToRecipients({{"m10@", "550-5.1.1 no\r\n550 5.1.1 such\x1b[31m user"},
                                      {"m149@", "553 \xC3\xA4 bad name"}}));
    std::vector<std::string> members = Addresses(250);
    members.push_back("evil>\r\nBcc: all@example.org");
    const unsigned long id = Put(members, kOwner, text);
    EXPECT_TRUE(Pass(relay));
    EXPECT_EQ(relay.Recipients().size(), 248U);
    const std::vector<std::string> reports = Reports();
    ASSERT_EQ(reports.size(), 1U);
    const std::string& report = reports[0];
    EXPECT_TRUE(report.starts_with("<> to " + std::string(kOwner) + "(dl)\n")) << report;
    for (const char* part :
         {"To: <garden-owner@lists.example.org>\r\n",
          "From: Mail delivery <postmaster@mail.example.org>",
          "Content-Type: multipart/report; report-type=delivery-status;",
          "Reporting-MTA: dns; mail.example.org\r\nArrival-Date: Tue, 09 Nov 2004 11:33:20 "
          "+0000\r\n",
          "\r\n\r\nFinal-Recipient: rfc822; m10@d3.example.org\r\nAction: failed\r\nStatus: "
          "5.1.1\r\n"
          "Remote-MTA: dns; 127.0.0.1\r\nDiagnostic-Code: smtp; 550 5.1.1 no such [31m user\r\n",
          "Final-Recipient: rfc822; m149@d2.example.org\r\nAction: failed\r\nStatus: 5.0.0\r\n"
          "Remote-MTA: dns; 127.0.0.1\r\nDiagnostic-Code: smtp; 553 ?? bad name\r\n",
          "Final-Recipient: rfc822; evil>  Bcc: all@example.org\r\nAction: failed\r\nStatus: "
          "5.1.3\r\n"
          "Diagnostic-Code: x-local; 5.1.3 the address cannot be used\r\n",
          "\r\nReceived: by x\r\nSubject: frost\r\n\r\n--=_dl_"})
        EXPECT_NE(report.find(part), std::string::npos) << part << "\n" << report;
    EXPECT_NE(report.find(std::string(897, 'x') + "\r\n " + std::string(103, 'x') + "\r\n"),
              std::string::npos)
        << "a relay may refuse a longer line";
    EXPECT_EQ(CountOf(report, "Final-Recipient:"), 3U);
    EXPECT_EQ(CountOf(report, "Cover it"), 0U);
    EXPECT_EQ(report.find("\r\nBcc:"), std::string::npos);
    char line[200];
    std::snprintf(line, sizeof line,
                  "Refused %08lX to <m10@d3.example.org>: 550 5.1.1 no such\\x1B[31m user", id);
    EXPECT_TRUE(log.Has(3, line));
    EXPECT_EQ(Lines(3, "Refused "), 3U);
}

TEST_F(HandoverTest, NothingIsReportedOfReports)
{
    ScriptedRelay relay(ToRecipients({{"", "550 5.1.1 no"}}));
    for (const char* sender : {"<>", "", "no address", "x@y\r\nz"})
        Put(Addresses(2), sender);
    EXPECT_TRUE(Pass(relay));
    EXPECT_TRUE(Reports().empty());
    // The report comes back in another message, whose sender can be told.
    Put(Addresses(1));
    EXPECT_TRUE(Pass(relay));
    std::vector<std::string> reports = Reports();
    ASSERT_EQ(reports.size(), 1U);
    Put(Addresses(1), kOwner,
        "From: garden-owner\r\n\r\n--b\r\nContent-type: message/rfc822\r\n\r\n" +
            reports[0].substr(reports[0].find('\n') + 1));
    log.ExpectError("it carries a delivery report");
    EXPECT_TRUE(Pass(relay));
    EXPECT_TRUE(Reports().empty());
}

TEST_F(HandoverTest, TriesAgainOnlyThoseWhoWait)
{
    std::atomic<bool> recovered{false};
    const auto greylists = [&](const RelayStep& step) {
        return !recovered && step.line.starts_with("RCPT TO:<m5");
    };
    ScriptedRelay relay(When(greylists, {"450 4.2.1 greylisted"}));
    const std::vector<std::string> members = Addresses(120);
    Put(members);
    EXPECT_FALSE(Pass(relay));
    EXPECT_EQ(relay.Recipients().size(), 109U);
    EXPECT_EQ(QueueItems()[0].attempts, 0) << "a retry is no failed hand-out";
    const std::size_t commands = relay.Commands().size();
    clock.now += 40;
    EXPECT_FALSE(Pass(relay));
    EXPECT_EQ(relay.Commands().size(), commands) << "too early";
    recovered = true;
    clock.now += 40;
    EXPECT_TRUE(Pass(relay));
    EXPECT_EQ(Set(relay.Recipients()), Set(members));
    EXPECT_TRUE(Reports().empty());
}

TEST_F(HandoverTest, GivesUpAfterItsDays)
{
    ScriptedRelay relay(ToRecipients({{"late", "451 4.3.0 never quite ready"}}));
    Put({"late@example.org", "a@example.org"});
    int passes = 0;
    for (bool empty = false; !empty && passes < 500; ++passes) {
        empty = Pass(relay);
        clock.now += 3600;
    }
    EXPECT_GT(passes, 80);
    EXPECT_LE(passes, 122);
    EXPECT_EQ(relay.Recipients(), std::vector<std::string>{"a@example.org"});
    const std::vector<std::string> reports = Reports();
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_NE(reports[0].find("Final-Recipient: rfc822; late@example.org\r\nAction: failed\r\n"
                              "Status: 4.4.7\r\nRemote-MTA: dns; 127.0.0.1\r\n"
                              "Diagnostic-Code: smtp; 451 4.3.0 never quite ready\r\n"),
              std::string::npos)
        << reports[0];
    EXPECT_EQ(CountOf(reports[0], "Final-Recipient:"), 1U);
}

TEST_F(HandoverTest, AnAbsentRelayCostsNoTry)
{
    settings.relay.port = FreePort();
    for (int i = 0; i < 5; ++i)
        Put(Addresses(3));
    for (int i = 0; i < 7; ++i) {
        log.ExpectError("cannot be used: Connection refused");
        EXPECT_FALSE(Pass());
    }
    EXPECT_EQ(Lines(1, "The relay "), 7U) << "one for each pass";
    ASSERT_EQ(QueueItems().size(), 5U);
    for (const QueueItem& item : QueueItems())
        EXPECT_TRUE(item.attempts == 0 && !item.taken);
    clock.now += 432'000;
    log.ExpectError("cannot be used");
    EXPECT_TRUE(Pass());
    const std::vector<std::string> reports = Reports();
    ASSERT_EQ(reports.size(), 5U);
    EXPECT_NE(reports[0].find("the relay cannot be used: Connection refused"), std::string::npos);
}

// Who is killed while the relay is down must not be blamed on a message that waits for it.
TEST_F(HandoverTest, NoEntryIsKeptWhileTheRelayIsDown)
{
    ScriptedRelay relay([](const RelayStep& step) -> std::optional<RelayReaction> {
        if (step.verb == "CONNECT" && step.connection <= 1)
            return RelayReaction{"421 not yet", true};
        return std::nullopt;
    });
    settings.relay.port = relay.Port();
    settings.connections = 1;
    for (int i = 0; i < 3; ++i)
        Put(Addresses(2));
    log.ExpectError("cannot be used: ");
    log.ExpectError("can be used again");
    const auto channel = DeliveryChannel::Open("dlout");
    std::atomic<bool> stop{false};
    std::thread sender([&] { Handover(settings, channel.get(), &stop).Run(false); });
    const auto wait_for = [](const std::function<bool()>& done) {
        for (int i = 0; i < 400 && !done(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return done();
    };
    EXPECT_TRUE(wait_for([&] { return log.HasPart("cannot be used"); }));
    EXPECT_TRUE(wait_for([] {
        const std::vector<QueueItem> items = QueueItems();
        return items.size() == 3 && std::none_of(items.begin(), items.end(),
                                                 [](const QueueItem& item) { return item.taken; });
    }));
    EXPECT_TRUE(wait_for([] { return QueueItems().empty(); })) << "tried again by itself";
    stop.store(true);
    sender.join();
    EXPECT_EQ(relay.Recipients().size(), 6U);
}

// Nobody's message is to blame when no file can be opened.
TEST_F(HandoverTest, AFaultOfTheMachineHoldsNothing)
{
    ScriptedRelay relay;
    Put(Addresses(2));
    settings.relay.port = relay.Port();
    settings.connections = 1;
    const auto channel = DeliveryChannel::Open("dlout");
    const std::atomic<bool> stop{false};
    Handover(settings, channel.get(), &stop).Run(true);  // has all files open, the sanitizer's too
    Put(Addresses(2, "late"));
    Handover without(settings, channel.get(), &stop);
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const int next = dup(0);
    ASSERT_GT(next, 0);
    close(next);
    const rlimit none{static_cast<rlim_t>(next), usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    log.ExpectError("cannot be read now, next try in ");
    without.Run(true);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    ASSERT_EQ(QueueItems("dlout").size(), 1U);
    EXPECT_EQ(QueueItems("dlout")[0].attempts, 0);
    clock.now += 90;
    Handover(settings, channel.get(), &stop).Run(true);
    EXPECT_TRUE(QueueItems().empty());
    EXPECT_EQ(relay.Recipients().size(), 4U);
}

TEST_F(HandoverTest, ARelayMayEndConnectionsAsItLikes)
{
    std::atomic<bool> first_ended{false};  // then the second is the only one
    ScriptedRelay relay([&](const RelayStep& step) -> std::optional<RelayReaction> {
        if (step.verb == "MAIL" && step.transaction == 3) {
            first_ended = first_ended || step.connection == 1;
            return RelayReaction{step.connection % 2 ? "421 4.3.2 enough" : "", true};
        }
        if (step.verb == "CONNECT" && step.connection == 2 && !first_ended)
            return RelayReaction{"421 one is enough", true};
        return std::nullopt;
    });
    settings.max_recipients = 10;
    settings.connections = 2;
    const std::vector<std::string> members = Addresses(200);
    Put(members);
    EXPECT_TRUE(Pass(relay));
    EXPECT_EQ(Set(relay.Recipients()), Set(members));
    EXPECT_EQ(Lines(5, "Not yet"), 0U);
}

TEST_F(HandoverTest, AnUnansweredDotIsTriedAgainAndSaid)
{
    const auto first_dot = [](const RelayStep& step) {
        return step.verb == "." && step.connection == 1;
    };
    ScriptedRelay relay(When(first_dot, {"", true}));
    settings.connections = 1;
    Put(Addresses(150));
    EXPECT_FALSE(Pass(relay));
    const std::size_t unanswered = relay.Messages().at(0).recipients.size();
    EXPECT_EQ(Lines(3, "No answer for "), unanswered);
    EXPECT_EQ(relay.Recipients().size(), 150 - unanswered) << "the other transaction came through";
    clock.now += 100;
    EXPECT_TRUE(Pass(relay));
    EXPECT_EQ(Set(relay.Recipients()), Set(Addresses(150)));
    EXPECT_EQ(relay.Messages().size(), 3U);
}

TEST_F(HandoverTest, ASlowBigEntryDoesNotStandBeforeSmallOnes)
{
    ScriptedRelay relay([](const RelayStep& step) {
        if (step.recipient == 0 && step.line.starts_with("RCPT TO:<big"))
            usleep(20'000);
        return std::nullopt;
    });
    settings.max_recipients = 20;
    for (int i = 0; i < 6; ++i)
        Put(Addresses(400, "big" + std::to_string(i) + "-"));
    for (int i = 0; i < 40; ++i)
        Put({"small" + std::to_string(i) + "@example.org"});
    EXPECT_TRUE(Pass(relay));
    const std::vector<std::string> order = relay.Recipients();
    EXPECT_EQ(order.size(), 2440U);
    std::vector<std::size_t> small;
    for (std::size_t i = 0; i < order.size(); ++i)
        if (order[i].starts_with("small"))
            small.push_back(i);
    ASSERT_EQ(small.size(), 40U);
    EXPECT_LT(small.back(), 1200U) << "six big entries and four connections";
    const auto first = std::find(order.begin(), order.end(), "small0@example.org");
    EXPECT_LE(first - order.begin(), static_cast<long>(small[3])) << "of as many connections";
}

// What a run wrote down holds for the next, whatever came between.
TEST_F(HandoverTest, GoesOnWhereTheLastRunEnded)
{
    std::atomic<int> left{4};
    const auto too_often = [&](const RelayStep& step) {
        return step.verb == "MAIL" && left.fetch_sub(1) <= 0;
    };
    ScriptedRelay relay(When(too_often, {"451 4.3.0 not now"}));
    const std::vector<std::string> members = Addresses(1000);
    Put(members);
    for (int i = 0; i < 20 && !Pass(relay); ++i) {
        MQEnd();
        ASSERT_TRUE(MQInitAt(folder));
        clock.now += 5000;
        left = 4;
    }
    EXPECT_EQ(Set(relay.Recipients()), Set(members));
    EXPECT_LE(relay.Messages().size(), 16U);
}

// A queue whose Record fails as a full disk makes it fail.
class FullDisk : public FailingQueue, public DeliveryBackend
{
 public:
    explicit FullDisk(const std::string& folder) : FailingQueue(folder) {}
    DeliveryBackend* Deliveries() override { return this; }
    QueueAnswer AnythingDue(std::int64_t reader, std::int64_t now, std::int64_t* closed) override
    {
        return Real().AnythingDue(reader, now, closed);
    }
    bool TakeDue(std::int64_t reader, std::int64_t now, std::size_t limit,
                 std::vector<DueEntry>* entries) override
    {
        return Real().TakeDue(reader, now, limit, entries);
    }
    QueueAnswer ReadDelivery(unsigned long id, std::string* envelope,
                             DeliveryRecord* record) override
    {
        return Real().ReadDelivery(id, envelope, record);
    }
    bool Record(std::int64_t reader, std::span<const DeliveryStep> steps,
                const PendingEntry* published) override
    {
        ++records;
        return fails.fetch_sub(1) <= 0 && Real().Record(reader, steps, published);
    }
    bool ReadAnswers(unsigned long id, std::uint32_t from, std::size_t limit,
                     std::vector<RecipientAnswer>* answers) override
    {
        return Real().ReadAnswers(id, from, limit, answers);
    }
    QueueAnswer Waiting(std::int64_t reader, std::int64_t* next_due) override
    {
        return Real().Waiting(reader, next_due);
    }
    bool HasRoom() const override { return room; }
    bool WaitForNews(std::chrono::milliseconds longest) override
    {
        return Real().WaitForNews(longest);
    }

    std::atomic<int> fails{0};
    std::atomic<int> records{0};
    std::atomic<bool> room{true};

 private:
    DeliveryBackend& Real() { return *FailingQueue::Deliveries(); }
};

TEST_F(HandoverTest, AFullDiskStopsTheSendingAndRepeatsNothing)
{
    MQEnd();
    FullDisk queue(folder);
    ScriptedRelay relay;
    settings.max_recipients = 10;
    const std::vector<std::string> members = Addresses(400);
    Put(members);
    queue.fails = 3;  // it lasts for a moment
    log.ExpectError("The queue can be written again");
    EXPECT_TRUE(Pass(relay));
    EXPECT_EQ(Set(relay.Recipients()), Set(members));

    Put(members);
    queue.fails = 1'000'000;  // it stays
    queue.records = 0;
    log.ExpectError("will get it again");
    log.ExpectError("could not be given back");
    EXPECT_FALSE(Pass(relay));
    EXPECT_LT(queue.records, 30) << "no endless loop";
    const std::size_t sent = relay.Recipients().size() - 400;
    EXPECT_LE(sent, 40U) << "nothing more is sent than was under way";
    queue.fails = 0;
    queue.room = false;
    log.ExpectError("The disk of the queue is full, nothing is handed over");
    EXPECT_FALSE(Pass(relay));
    EXPECT_EQ(relay.Recipients().size(), 400 + sent) << "what cannot be written down is not sent";
    queue.room = true;
    EXPECT_TRUE(Pass(relay));
    EXPECT_EQ(relay.Recipients().size(), 800 + sent);
}

}  // namespace dl::testing
