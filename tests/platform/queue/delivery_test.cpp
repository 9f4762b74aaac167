#include "platform/queue/delivery.h"

#include <thread>
#include <tuple>

#include "tests/platform/queue/queue_fixture.h"
#include "tests/support/child.h"

namespace dl::testing
{

using End = DeliveryStep::End;

class DeliveryTest : public QueueFixture
{
 protected:
    static unsigned long PutFor(int recipients)
    {
        return PutEntry("m", "dlout", "list-owner@example.org", Addresses(recipients, "r"));
    }
    static std::vector<unsigned long> Take(DeliveryChannel& channel, std::int64_t now,
                                           std::size_t limit = 100)
    {
        std::vector<DueEntry> entries;
        EXPECT_TRUE(channel.Take(now, limit, &entries));
        std::vector<unsigned long> ids;
        for (const DueEntry& entry : entries)
            ids.push_back(entry.id);
        return ids;
    }
    static bool End(DeliveryChannel& channel, unsigned long id, DeliveryStep::End end,
                    std::int64_t due = 0)
    {
        DeliveryStep step;
        step.id = id;
        step.end = end;
        step.due = due;
        return channel.Record({&step, 1});
    }
    static std::string Channels()
    {
        std::string out;
        for (const QueueItem& item : QueueItems())
            out += item.channel + "(" + std::to_string(item.attempts) + ") ";
        return out;
    }
};

using Ids = std::vector<unsigned long>;

TEST_F(DeliveryTest, GivesWhatIsDueInTheOrderOfTheChannel)
{
    const Ids ids = {PutFor(1), PutFor(1), PutFor(1), PutFor(1)};
    const auto channel = DeliveryChannel::Open("dlout");
    const auto other = DeliveryChannel::Open("dlout");
    EXPECT_EQ(channel->AnythingDue(100), QueueAnswer::kYes);
    EXPECT_EQ(Take(*channel, 100, 3), (Ids{ids[0], ids[1], ids[2]}));
    EXPECT_EQ(Take(*other, 100), Ids{ids[3]}) << "what one has no other gets";
    ASSERT_TRUE(End(*channel, ids[0], End::kPutBack, 500));
    ASSERT_TRUE(End(*channel, ids[1], End::kPutBack, 400));
    ASSERT_TRUE(End(*other, ids[3], End::kGiveBack));
    EXPECT_EQ(Take(*channel, 399), Ids{ids[3]});
    EXPECT_EQ(Take(*channel, 399), Ids{});
    std::int64_t due = 0;
    EXPECT_EQ(channel->Waiting(&due), QueueAnswer::kYes);
    EXPECT_EQ(due, 400);
    EXPECT_EQ(Take(*channel, 500), (Ids{ids[0], ids[1]}));
    for (const unsigned long id : ids)
        ASSERT_TRUE(End(*channel, id, End::kFinish));
    EXPECT_EQ(channel->Waiting(&due), QueueAnswer::kNo);
    EXPECT_EQ(channel->AnythingDue(10'000), QueueAnswer::kNo);
    EXPECT_EQ(Channels(), "");
    EXPECT_EQ(Files(), 0U);
}

TEST_F(DeliveryTest, NewsComesWithEachCommitOfAnyProcess)
{
    constexpr std::chrono::milliseconds kNow{0};
    constexpr std::chrono::seconds kSoon{20};
    const auto channel = DeliveryChannel::Open("dlout");
    EXPECT_FALSE(channel->WaitForNews(kNow));
    const pid_t other = InBackground([&] {
        usleep(20'000);
        return MQInitAt(folder) && PutFor(1) > 0 ? 0 : 1;
    });
    EXPECT_TRUE(channel->WaitForNews(kSoon));
    EXPECT_EQ(channel->AnythingDue(100), QueueAnswer::kYes) << "the commit comes before its news";
    EXPECT_EQ(StatusOf(other), 0);
    EXPECT_FALSE(channel->WaitForNews(kNow));
    const Ids ids = Take(*channel, 100);
    ASSERT_EQ(ids.size(), 1U);
    EXPECT_FALSE(channel->WaitForNews(kNow)) << "taking is none";
    ASSERT_TRUE(End(*channel, ids[0], End::kGiveBack));
    ASSERT_EQ(MoveMQItem(ids[0], "dlout", "dlhold"), QueueChange::kDone);
    EXPECT_TRUE(channel->WaitForNews(kNow));
    {
        NewMQEntry one;
        NewMQEntry two;
        for (NewMQEntry* entry : {&one, &two})
            ASSERT_TRUE(FillEntry(entry->get(), "m") && InsertMQChannel(entry->get(), "dl", 0));
        EXPECT_EQ(CloseMQEntries({one.Release(), two.Release()}), std::vector<bool>(2, true));
    }
    EXPECT_TRUE(channel->WaitForNews(kNow)) << "of a group";
}

TEST_F(DeliveryTest, KeepsWhatBecameOfEachRecipient)
{
    constexpr int kMany = 100'000;
    const unsigned long id = PutFor(kMany);
    {
        const auto channel = DeliveryChannel::Open("dlout");
        ASSERT_EQ(Take(*channel, 1), Ids{id});
        DeliveryStep step;
        step.id = id;
        step.problem = "421 busy";
        step.answers = {{7, RecipientState::kDelivered, ""},
                        {8, RecipientState::kRefused, "550 5.1.1 no"},
                        {kMany - 1, RecipientState::kDelivered, ""},
                        {0, RecipientState::kWaiting, "450 later"}};
        ASSERT_TRUE(channel->Record({&step, 1}));
        step.answers = {{0, RecipientState::kRefused, "554 never"}};
        step.end = End::kPutBack;
        step.due = 50;
        ASSERT_TRUE(channel->Record({&step, 1}));
        std::vector<QueueItem> items;
        ASSERT_TRUE(FindMQ(id, &items));
        ASSERT_EQ(items.size(), 1U);
        EXPECT_EQ(std::tie(items[0].due, items[0].tries, items[0].problem),
                  std::make_tuple(50, 1, "421 busy"));
        ASSERT_TRUE(FindMQ(id + 1, &items));
        EXPECT_TRUE(items.empty());
    }
    ASSERT_TRUE(MQInitAt(folder));  // as another process would see it
    const auto channel = DeliveryChannel::Open("dlout");
    ASSERT_EQ(Take(*channel, 50), Ids{id});
    DeliveryRecord record;
    ASSERT_EQ(channel->Read(id, &record), QueueAnswer::kYes);
    EXPECT_EQ(record.envelope.Sender(), "list-owner@example.org");
    ASSERT_EQ(record.envelope.Count(), static_cast<std::size_t>(kMany));
    for (const std::size_t i : {0U, 9U, 10U, 99'999U})
        EXPECT_TRUE(record.envelope.Recipient(i).starts_with("r" + std::to_string(i) + "@"));
    EXPECT_EQ(record.tries, 1);
    EXPECT_EQ(record.problem, "421 busy");
    std::string want(kMany, '\0');
    want[7] = want[kMany - 1] = 1;
    want[8] = want[0] = 2;
    EXPECT_EQ(record.states, want);
    std::vector<RecipientAnswer> answers;
    ASSERT_TRUE(channel->ReadAnswers(id, 0, 1, &answers));
    ASSERT_TRUE(channel->ReadAnswers(id, 1, 100, &answers));
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_EQ(answers[0].text, "554 never");
    EXPECT_EQ(answers[1].recipient, 8U);
    ASSERT_TRUE(End(*channel, id, End::kFinish));
}

// A retry is no attempt that failed; the death of a reader in the middle of one is.
TEST_F(DeliveryTest, CountsOnlyReadersThatDied)
{
    const unsigned long id = PutFor(1);
    auto channel = DeliveryChannel::Open("dlout");
    for (int i = 0; i < 30; ++i) {
        ASSERT_EQ(Take(*channel, i + 1), Ids{id});
        ASSERT_TRUE(End(*channel, id, i % 2 ? End::kGiveBack : End::kPutBack, i + 2));
    }
    EXPECT_EQ(Channels(), "dlout(0) ");
    channel.reset();
    MQEnd();
    for (int i = 1; i <= 5; ++i) {
        const auto take_and_die = [&] {
            std::unique_ptr<DeliveryChannel> own;
            const bool taken = MQInitAt(folder) && (own = DeliveryChannel::Open("dlout")) &&
                               Take(*own, 1000) == Ids{id};
            (void)own.release();
            return taken ? 0 : 1;
        };
        ASSERT_EQ(InChild(take_and_die), 0) << i;
    }
    ASSERT_TRUE(MQInitAt(folder));
    channel = DeliveryChannel::Open("dlout");
    log.ExpectError("could not be handled in 5 attempts");
    EXPECT_EQ(Take(*channel, 1000), Ids{});
    EXPECT_EQ(Channels(), "dlhold(5) ");
}

TEST_F(DeliveryTest, HoldsWhatCannotBeDelivered)
{
    const unsigned long bare = PutBare("dlout");
    const unsigned long gone = PutFor(1);
    std::filesystem::remove(GetMQPathName(gone, ".msg"));
    const auto channel = DeliveryChannel::Open("dlout");
    log.ExpectError("has no message file");
    EXPECT_EQ(Take(*channel, 1), Ids{bare});
    DeliveryRecord record;
    EXPECT_EQ(channel->Read(bare, &record), QueueAnswer::kNo);
    ASSERT_TRUE(End(*channel, bare, End::kHold));
    EXPECT_EQ(Channels(), "dlhold(0) dlhold(0) ");
}

TEST_F(DeliveryTest, PublishesAReportAndFinishesInOne)
{
    const unsigned long id = PutFor(1);
    const auto channel = DeliveryChannel::Open("dlout");
    ASSERT_EQ(Take(*channel, 1), Ids{id});
    DeliveryStep step;
    step.id = id;
    step.end = End::kFinish;
    {
        NewMQEntry report;
        ASSERT_TRUE(FillEntry(report.get(), "report"));
        stEnvelope envelope = Envelope("list-owner@example.org");
        ASSERT_TRUE(channel->RecordWith(step, std::move(report), "dl", &envelope));
    }
    EXPECT_EQ(Channels(), "dl(0) ");
    EXPECT_EQ(Drain("dl"), Texts{"report"});

    const unsigned long second = PutFor(1);
    ASSERT_EQ(Take(*channel, 1), Ids{second});
    step.id = second;
    NewMQEntry report;
    ASSERT_TRUE(report);
    std::filesystem::remove(GetMQPathName(report.get(), ".msg"));
    stEnvelope envelope = Envelope("list-owner@example.org");
    log.ExpectError("was not put into the message queue");
    EXPECT_FALSE(channel->RecordWith(step, std::move(report), "dl", &envelope));
    EXPECT_EQ(Channels(), "dlout(0) ") << "neither of both";
    EXPECT_EQ(Files(), 1U);
}

TEST_F(DeliveryTest, ManyThreadsRecordAtOnce)
{
    constexpr int kThreads = 8;
    constexpr int kSteps = 40;
    const unsigned long shared = PutFor(kThreads * kSteps);
    std::vector<unsigned long> own;
    for (int i = 0; i < kThreads * kSteps; ++i)
        own.push_back(PutFor(1));
    const auto channel = DeliveryChannel::Open("dlout");
    ASSERT_EQ(Take(*channel, 1, 1000).size(), own.size() + 1);
    std::vector<std::thread> threads;
    std::atomic<int> failed{0};
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kSteps; ++i) {
                DeliveryStep steps[2];
                steps[0].id = shared;
                steps[0].answers = {
                    {static_cast<std::uint32_t>(t * kSteps + i), RecipientState::kDelivered, ""}};
                steps[1].id = own[static_cast<std::size_t>(t * kSteps + i)];
                steps[1].end = End::kFinish;
                failed += channel->Record(steps) ? 0 : 1;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(Channels(), "dlout(0) ");
    DeliveryRecord record;
    ASSERT_EQ(channel->Read(shared, &record), QueueAnswer::kYes);
    EXPECT_EQ(record.states, std::string(kThreads * kSteps, '\1'));
    EXPECT_EQ(Files(), 1U);
}

TEST_F(DeliveryTest, BelievesNoDamagedEnvelope)
{
    stEnvelope envelope;
    ASSERT_TRUE(envelope.AddSender({.address = ""}));
    ASSERT_TRUE(envelope.AddRecipient({.address = "a@example.org", .text = "t"}));
    ASSERT_TRUE(envelope.AddRecipient({.address = "b@example.org"}));
    const std::string blob = EncodeEnvelope(envelope);
    const auto whole = DecodeCompact(blob);
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->Sender(), "<>");
    EXPECT_EQ(whole->Recipient(1), "b@example.org");
    for (std::size_t size = 0; size < blob.size(); ++size)
        EXPECT_FALSE(DecodeCompact(blob.substr(0, size))) << size;
    EXPECT_FALSE(DecodeCompact(blob + "x"));
    for (std::size_t i = 0; i < blob.size(); ++i)
        for (const char c : {'\0', '\x7f', '\xff'}) {
            std::string bad = blob;
            bad[i] = c;
            const auto read = DecodeCompact(bad);
            for (std::size_t k = 0; read && k < read->Count(); ++k)
                EXPECT_LE(read->Recipient(k).size(), blob.size());
        }
}

}  // namespace dl::testing
