#include "platform/queue/queue.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <set>
#include <thread>

#include "platform/queue/delivery.h"
#include "tests/platform/queue/queue_fixture.h"
#include "tests/support/child.h"

namespace dl::testing
{

using Queue = QueueFixture;

TEST_F(Queue, OnlyClosedEntriesAreSeenInTheOrderOfTheirClosing)
{
    NewMQEntry first, second, discarded, left, open;
    for (const auto& [entry, text] : {std::pair{&first, "first"},
                                      {&second, "second"},
                                      {&discarded, "discarded"},
                                      {&left, "left"},
                                      {&open, "open"}}) {
        ASSERT_TRUE(*entry);
        ASSERT_TRUE(FillEntry(entry->get(), text));
        ASSERT_TRUE(InsertMQChannel(entry->get(), "dl", 0));
        stEnvelope envelope = Envelope("a@example.org");
        ASSERT_TRUE(PutMQEnvelope(entry->get(), &envelope));
    }
    EXPECT_TRUE(second.Close());
    EXPECT_TRUE(first.Close());
    discarded.Discard();
    left.Leave();
    Put("other channel", "dlout");
    EXPECT_EQ(Drain("dl"), (Texts{"second", "first"}));
    EXPECT_EQ(Drain("dlout"), Texts{"other channel"});
    EXPECT_EQ(Files(), 2U);  // of the left one and the open one
}

TEST_F(Queue, TheEnvelopeAndThePathsAreTheEntrys)
{
    clock.now = 0x4196C2D0;
    const unsigned long id = Put("hello");
    ASSERT_NE(id, 0U);
    MQContext* channel = OpenMQChannel("dl");
    EXPECT_EQ(GetMQPathName(channel, ".msg"), "");  // no current message yet
    ASSERT_EQ(GetFirstMessage(channel, false), static_cast<long>(id));
    EXPECT_EQ(GetMQId(channel), id);
    char name[32];
    std::snprintf(name, sizeof name, "/msg/%08lX.msg", id);
    EXPECT_EQ(GetMQPathName(channel, ".msg"), folder + name);
    EXPECT_EQ(GetMQPathName(id, ".msg"), folder + name);
    const EnvelopeResult result = GetMQEnvelope(id);
    ASSERT_TRUE(result.envelope);
    EXPECT_EQ(result.envelope->SenderAddress(), "owner@example.org");
    EXPECT_EQ(result.envelope->recipients.Next()->address, "hello@example.org");
    EXPECT_TRUE(RemoveMQChannel(channel));
    EXPECT_FALSE(RemoveMQChannel(channel));  // there is no current message any more
    EXPECT_FALSE(GetMQEnvelope(id).envelope);
    EXPECT_FALSE(GetMQEnvelope(id).failed);
    EXPECT_TRUE(CloseMQChannel(channel));
}

TEST_F(Queue, AnEntryInTwoChannelsLeavesWithTheLast)
{
    NewMQEntry entry;
    ASSERT_TRUE(FillEntry(entry.get(), "both"));
    for (const char* channel : {"dl", "dlout", "dl"})
        ASSERT_TRUE(InsertMQChannel(entry.get(), channel, 0));
    stEnvelope envelope = Envelope("a@example.org");
    ASSERT_TRUE(PutMQEnvelope(entry.get(), &envelope));
    ASSERT_TRUE(entry.Close());
    EXPECT_EQ(Drain("dl"), Texts{"both"});
    EXPECT_EQ(Files(), 1U);
    EXPECT_EQ(Drain("dlout"), Texts{"both"});
    EXPECT_EQ(Files(), 0U);
}

TEST_F(Queue, WhatIsInNoChannelIsDropped)
{
    NewMQEntry entry;
    ASSERT_TRUE(FillEntry(entry.get(), "nowhere"));
    EXPECT_FALSE(entry.Close());
    EXPECT_EQ(Files(), 0U);
    EXPECT_FALSE(InsertMQChannel(nullptr, "dl", 0));
    EXPECT_FALSE(CloseMQEntry(nullptr));
}

// What readers had in flight as they died, having given the rest back in order, and what the next
// one finds: each message's attempts, "?" for a suspect, in the order in which they come now.
TEST_F(Queue, OnlyTheGuiltyOneCountsAnAttempt)
{
    const struct {
        const char* name;
        std::vector<Texts> deaths;  // what was in flight at each
        Texts want;
    } rows[] = {
        {"one", {{"a"}}, {"b 0", "c 0", "a 1?"}},
        {"several: which one is not known", {{"a", "b"}}, {"c 0", "a 0?", "b 0?"}},
        {"then one by one", {{"a", "b"}, {"a"}}, {"b 0", "c 0", "a 1?"}},
        {"again and again", {{"a"}, {"a"}, {"a"}}, {"b 0", "c 0", "a 3?"}},
        {"a suspect among others", {{"a"}, {"b", "a"}}, {"c 0", "b 0?", "a 2?"}},
        {"suspects together", {{"a", "b"}, {"a", "b"}}, {"c 0", "a 0?", "b 0?"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        for (const char* text : {"a", "b", "c"})
            Put(text);
        for (const Texts& flight : row.deaths) {
            auto other = OpenSqliteQueue(folder, 5);  // stands for a process of its own
            const std::int64_t reader = other->BeginReader("dl", 60);
            std::vector<std::uint32_t> returned;
            for (long id = other->Take(reader); id >= 0; id = other->Take(reader))
                if (std::find(flight.begin(), flight.end(), Text(id)) == flight.end())
                    returned.push_back(static_cast<std::uint32_t>(id));
            for (const std::uint32_t id : returned) {
                DeliveryStep step;
                step.id = id;
                step.end = DeliveryStep::End::kGiveBack;
                EXPECT_TRUE(other->Deliveries()->Record(reader, {&step, 1}, nullptr));
            }
            other.reset();  // without EndReader
        }
        MQContext* channel = OpenMQChannel("dl");
        ASSERT_GT(GetFirstMessage(channel, false), 0);  // frees what the dead one had
        EXPECT_TRUE(CloseMQChannel(channel));
        Texts found;
        for (const QueueItem& item : QueueItems("dl"))
            found.push_back(Text(item.id) + " " + std::to_string(item.attempts) +
                            (item.suspect ? "?" : ""));
        EXPECT_EQ(found, row.want);
        Drain("dl");
    }
}

TEST_F(Queue, AfterTooManyAttemptsAnEntryIsHeld)
{
    Configure("[Queue]\nPath = " + folder + "\nMaxAttempts = 2\n");
    ASSERT_TRUE(MQInit("localhost", "DL Manager"));
    const unsigned long poison = Put("poison");
    Put("fine");
    MQContext* channel = OpenMQChannel("dl");
    ASSERT_EQ(GetFirstMessage(channel, false), static_cast<long>(poison));
    EXPECT_FALSE(IsSuspectMessage(channel));
    EXPECT_TRUE(BlameMQMessage(channel));
    EXPECT_EQ(Pass(channel, false), (Texts{"fine", "poison"})) << "behind all others";
    EXPECT_EQ(Pass(channel, false), (Texts{"fine", "poison"})) << "an orderly end counts nothing";
    ASSERT_GT(GetFirstMessage(channel, false), 0);
    ASSERT_EQ(GetNextMessage(channel, false), static_cast<long>(poison));
    EXPECT_TRUE(IsSuspectMessage(channel));
    EXPECT_TRUE(BlameMQMessage(channel));
    log.ExpectError("could not be handled in 2 attempts, moved from channel dl to dlhold");
    EXPECT_EQ(Pass(channel, true), (Texts{"fine"}));
    ASSERT_EQ(log.Lines().size(), 1U);
    EXPECT_EQ(log.Lines()[0].module, "DL Manager");
    EXPECT_TRUE(CloseMQChannel(channel));

    const std::vector<QueueItem> items = QueueItems("dlhold");
    ASSERT_EQ(items.size(), 1U);
    EXPECT_EQ(items[0].id, poison);
    EXPECT_EQ(items[0].origin, "dl");
    EXPECT_EQ(items[0].attempts, 2);
    EXPECT_EQ(MoveMQItem(poison, "dlhold", "dl"), QueueChange::kDone);
    EXPECT_EQ(QueueItems("dl").at(0).attempts, 0);
    EXPECT_EQ(Drain("dl"), Texts{"poison"});
}

TEST_F(Queue, AnOrderlyEndCountsNoAttempt)
{
    Put("message");
    for (int round = 1; round <= 3; ++round) {
        MQContext* channel = OpenMQChannel("dl");
        ASSERT_GT(GetFirstMessage(channel, false), 0);
        EXPECT_TRUE(QueueItems().at(0).taken);
        if (round == 2)
            MQEnd();  // a stop of the service in the middle
        EXPECT_TRUE(CloseMQChannel(channel));
        ASSERT_TRUE(MQInitAt(folder));
        EXPECT_FALSE(QueueItems().at(0).taken);
        EXPECT_FALSE(QueueItems().at(0).suspect);
        EXPECT_EQ(QueueItems().at(0).attempts, 0);
    }
}

TEST_F(Queue, APostponedMessageWaitsAndTheOthersGoOn)
{
    Put("early");
    Put("late");
    MQContext* channel = OpenMQChannel("dl");
    ASSERT_GT(GetFirstMessage(channel, false), 0);
    EXPECT_TRUE(PostponeMQMessage(channel, clock.now + 10, "the directory is away"));
    EXPECT_FALSE(PostponeMQMessage(channel, clock.now + 10, "")) << "it is not current any more";
    EXPECT_EQ(Pass(channel, true), Texts{"late"});
    const QueueItem item = QueueItems("dl").at(0);
    EXPECT_EQ(item.due, clock.now + 10);
    EXPECT_EQ(item.tries, 1);
    EXPECT_EQ(item.problem, "the directory is away");
    EXPECT_EQ(item.attempts, 0);
    clock.now += 9;
    EXPECT_EQ(Pass(channel, false), Texts{});
    clock.now += 1;
    EXPECT_EQ(Pass(channel, false), Texts{"early"});
    ASSERT_GT(GetFirstMessage(channel, false), 0);
    EXPECT_TRUE(PostponeMQMessage(channel, clock.now + 20, "again"));
    clock.now -= 86'400;  // the clock is set back: nothing waits for a day because of it
    EXPECT_EQ(Pass(channel, true), Texts{"early"});
    EXPECT_TRUE(CloseMQChannel(channel));
}

// What comes during a pass waits for the next one, so that a pass ends whatever the load.
TEST_F(Queue, APassIsOverWhatWasThereAtItsBeginning)
{
    Put("1");
    MQContext* channel = OpenMQChannel("dl");
    ASSERT_GT(GetFirstMessage(channel, false), 0);
    ASSERT_TRUE(RemoveMQChannel(channel));
    Put("2");
    EXPECT_EQ(GetNextMessage(channel, false), kNoMessage);
    EXPECT_EQ(Pass(channel, true), Texts{"2"});
    EXPECT_TRUE(CloseMQChannel(channel));
}

TEST_F(Queue, AnEntryWithoutAnEnvelopeIsHeldNotLost)
{
    const unsigned long id = PutBare("dl");
    EXPECT_FALSE(GetMQEnvelope(id).envelope);
    log.ExpectError("has no envelope, moved to channel dlhold");
    EXPECT_EQ(Drain("dl"), Texts{"bare"});
    EXPECT_EQ(Drain("dl"), Texts{});
    EXPECT_EQ(Drain("dlhold"), Texts{"bare"});  // there it can be removed
    EXPECT_EQ(Files(), 0U);
}

TEST_F(Queue, AnEntryWhoseFileIsGoneIsHeld)
{
    const unsigned long id = Put("gone");
    Put("there");
    std::filesystem::remove(GetMQPathName(id, ".msg"));
    log.ExpectError("has no message file, moved from channel dl to dlhold");
    EXPECT_EQ(Drain("dl"), Texts{"there"});
}

TEST_F(Queue, ReadersShareAChannelAndTheDeadOnesGiveBack)
{
    for (const char* text : {"1", "2", "3", "4"})
        Put(text);
    MQContext* mine = OpenMQChannel("dl");
    auto other = OpenSqliteQueue(folder, 5);  // stands for another process: its claims are its own
    const std::int64_t reader = other->BeginReader("dl", 60);
    EXPECT_EQ(Text(GetFirstMessage(mine, false)), "1");
    EXPECT_EQ(Text(other->Take(reader)), "2");
    EXPECT_EQ(Text(GetNextMessage(mine, false)), "3");
    EXPECT_EQ(Text(other->Take(reader)), "4");
    EXPECT_EQ(other->Take(reader), kNoMessage);
    EXPECT_TRUE(RemoveMQChannel(mine));
    other.reset();  // without EndReader
    EXPECT_EQ(Pass(mine, true), (Texts{"1", "2", "4"}));
    EXPECT_TRUE(CloseMQChannel(mine));
}

TEST_F(Queue, AFileOutlivesItsRemovalUntilThatIsOnDisk)
{
    const unsigned long first = Put("1");
    const unsigned long second = Put("2");
    MQContext* channel = OpenMQChannel("dl");
    ASSERT_GT(GetFirstMessage(channel, false), 0);
    ASSERT_TRUE(RemoveMQChannel(channel));
    EXPECT_TRUE(std::filesystem::exists(GetMQPathName(first, ".msg")));
    Put("3");
    EXPECT_FALSE(std::filesystem::exists(GetMQPathName(first, ".msg")));
    ASSERT_GT(GetNextMessage(channel, false), 0);
    ASSERT_TRUE(RemoveMQChannel(channel));
    EXPECT_TRUE(std::filesystem::exists(GetMQPathName(second, ".msg")));
    EXPECT_EQ(GetNextMessage(channel, false), kNoMessage);
    EXPECT_FALSE(std::filesystem::exists(GetMQPathName(second, ".msg")));
    EXPECT_TRUE(CloseMQChannel(channel));
}

TEST_F(Queue, IdentifiersRiseAndNeverStartAgain)
{
    const struct {
        const char* name;
        const char* counter;
        std::vector<unsigned long> want;
    } rows[] = {
        {"no counter: the time", "", {0x41910000, 0x41910001}},
        {"damaged counter: the time", "00000garbage", {0x41910000, 0x41910001}},
        {"counter of zero: the time", "0000000000\n", {0x41910000}},
        {"goes on", "0000000041\n", {41, 42, 43}},
        {"skips a file and an entry", "0000000099\n", {99, 101, 103}},
        {"leaves out the reserved ones", "4294967293\n", {4294967293, 1, 2}},
    };
    clock.now = 0x41910000;
    Write("queue/msg/00000064.msg", "");
    {
        auto other = OpenSqliteQueue(folder, 5);  // swept at this start, so put again
        Write("queue/msg/00000064.msg", "");
        Write("queue/next.id", "0000000102\n");
        const unsigned long id = Put("102", "elsewhere");
        EXPECT_EQ(id, 102U);
        std::filesystem::remove(GetMQPathName(id, ".msg"));
    }
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Write("queue/next.id", row.counter);
        for (const unsigned long want : row.want)
            EXPECT_EQ(GetMQId(NewMQEntry().get()), want);
    }
}

TEST_F(Queue, AnOlderCounterAfterAPowerLossGivesNoIdentifierAgain)
{
    const struct {
        const char* name;
        const char* before;
        const char* after;
        unsigned long want;
    } rows[] = {
        {"as it was", "0000000041\n", "0000000042\n", 42},
        {"an older one", "0000000051\n", "0000000043\n", 52},
        {"a later one", "0000000061\n", "0000000099\n", 99},
        {"the time", "1800000000\n", "0000000043\n", 1800000001},
        {"far on", "3600000000\n", "3600000001\n", 3600000001},
        {"one that has begun again", "4294967290\n", "0000000001\n", 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Write("queue/next.id", row.before);
        (void)Put("x");
        EXPECT_EQ(Drain("dl"), Texts{"x"});
        Write("queue/next.id", row.after);
        MQEnd();
        ASSERT_TRUE(MQInitAt(folder));
        EXPECT_EQ(GetMQId(NewMQEntry().get()), row.want);
    }
}

TEST_F(Queue, ASweepTakesWhatDeadWritersLeftAndNothingElse)
{
    const unsigned long waiting = Put("waiting");
    auto other = OpenSqliteQueue(folder, 5);
    const auto written = other->Reserve();  // by a living writer
    ASSERT_TRUE(written);
    {
        NewMQEntry left;
        ASSERT_TRUE(left);
        left.Leave();
    }
    for (const char* name :
         {"0000ABCD.msg", "0000ABCD.tmp", "0000ABCD.msg.x1", "0000abcd.msg", "notes", "0000ABCE"})
        Write(std::string("queue/msg/") + name, "x");
    ASSERT_TRUE(MQInitAt(folder));
    EXPECT_EQ(FileNames(folder + "/msg"),
              (std::set<std::string>{
                  EntryFiles::FileName(static_cast<std::uint32_t>(waiting), ".msg"),
                  EntryFiles::FileName(*written, ".msg"), "0000abcd.msg", "notes", "0000ABCE"}));
    other.reset();
    ASSERT_TRUE(MQInitAt(folder));
    EXPECT_EQ(Files(), 4U);
    EXPECT_EQ(Drain("dl"), Texts{"waiting"});
}

TEST_F(Queue, TheLargestMessageThatWaitsKeepsItsRoom)
{
    const std::int64_t large = std::filesystem::space(folder).available / 4 + (1 << 20);
    EXPECT_TRUE(HasMQRoomFor(0));
    EXPECT_FALSE(HasMQRoomFor(large));
    NewMQEntry entry;
    ASSERT_TRUE(entry && FillEntry(entry.get(), "x"));
    // A hole takes no room, but counts.
    std::filesystem::resize_file(GetMQPathName(entry.get(), ".msg"),
                                 static_cast<std::uintmax_t>(large));
    const unsigned long id = GetMQId(entry.get());
    stEnvelope envelope;
    ASSERT_EQ(Submit(std::move(entry), "dl", 0, &envelope), Submission::kDone);
    EXPECT_FALSE(HasMQRoomFor(0)) << "the service needs some copies of it";
    EXPECT_EQ(RemoveMQItem(id), QueueChange::kDone);
    EXPECT_TRUE(HasMQRoomFor(0));
}

TEST_F(Queue, AForkedChildNeitherUsesTheQueueNorKeepsItsClaims)
{
    NewMQEntry left;
    ASSERT_TRUE(left);
    left.Leave();
    MQContext* channel = OpenMQChannel("dl");
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    const pid_t child = InBackground([&] {
        SetLogSink(nullptr);
        const bool refused = !CreateMQEntry() && !OpenMQChannel("dl") &&
                             GetFirstMessage(channel, false) == kQueueFailed &&
                             !CloseMQChannel(channel);
        MQEnd();
        char byte = 0;
        (void)!read(go[0], &byte, 1);  // until the parent has looked
        return refused ? 0 : 1;
    });
    Put("parent");
    EXPECT_EQ(Pass(channel, true), Texts{"parent"});
    EXPECT_TRUE(CloseMQChannel(channel));
    ASSERT_TRUE(MQInitAt(folder));
    EXPECT_EQ(Files(), 0U);  // the left entry is swept, though a child of its writer lives
    EXPECT_EQ(write(go[1], "g", 1), 1);
    EXPECT_EQ(StatusOf(child), 0);
}

TEST_F(Queue, ManyProcessesAndThreadsWriteAndReadAtOnce)
{
    constexpr int kWriters = 2, kThreads = 2, kEach = 60;
    MQEnd();
    std::vector<pid_t> children;
    for (int writer = 0; writer < kWriters; ++writer) {
        children.push_back(InBackground([&] {
            std::atomic<int> failed{MQInitAt(folder) ? 0 : 1};
            std::vector<std::thread> threads;
            for (int thread = 0; thread < kThreads; ++thread)
                threads.emplace_back([&failed, name = std::to_string(writer * 10 + thread)] {
                    for (int i = 100; i < 100 + kEach; ++i)
                        failed += Put(name + ":" + std::to_string(i)) == 0 ? 1 : 0;
                });
            for (std::thread& thread : threads)
                thread.join();
            MQEnd();
            return failed == 0 ? 0 : 1;
        }));
    }
    ASSERT_TRUE(MQInitAt(folder));
    std::map<std::string, std::vector<std::string>> seen;  // by writer
    int count = 0;
    MQContext* readers[] = {OpenMQChannel("dl"), OpenMQChannel("dl")};
    for (int tries = 0; tries < 20000 && count < kWriters * kThreads * kEach; ++tries) {
        std::vector<std::thread> threads;
        Texts texts[2];
        for (int i = 0; i < 2; ++i)
            threads.emplace_back([&, i] { texts[i] = Pass(readers[i], true); });
        for (std::thread& thread : threads)
            thread.join();
        for (const Texts& some : texts)
            for (const std::string& text : some) {
                seen[text.substr(0, text.find(':'))].push_back(text);
                ++count;
            }
        usleep(500);
    }
    for (const pid_t child : children)
        EXPECT_EQ(StatusOf(child), 0);
    for (MQContext* reader : readers)
        EXPECT_TRUE(CloseMQChannel(reader));
    EXPECT_EQ(seen.size(), 4U);
    for (auto& [writer, texts] : seen) {
        EXPECT_EQ(texts.size(), static_cast<std::size_t>(kEach)) << writer;
        EXPECT_EQ(std::set<std::string>(texts.begin(), texts.end()).size(), texts.size())
            << "twice";
    }
    EXPECT_EQ(Files(), 0U);
}

TEST_F(Queue, ToolsListMoveAndRemove)
{
    const unsigned long first = Put("1");
    clock.now += 60;
    const unsigned long second = Put("22", "dlout");
    const unsigned long third = Put("333");
    std::vector<QueueItem> items = QueueItems();
    ASSERT_EQ(items.size(), 3U);
    EXPECT_EQ(items[1].id, third);
    EXPECT_EQ(items[1].bytes, 3);
    EXPECT_EQ(items[1].closed, clock.now);
    EXPECT_EQ(items[1].recipients, 1U);
    EXPECT_EQ(items[1].sender, "owner@example.org");
    EXPECT_EQ(items[2].channel, "dlout");
    ASSERT_TRUE(ListMQ("dl", 1, &items));
    ASSERT_EQ(items.size(), 1U);
    EXPECT_EQ(items[0].id, first);

    MQContext* channel = OpenMQChannel("dl");
    ASSERT_EQ(GetFirstMessage(channel, false), static_cast<long>(first));
    EXPECT_EQ(RemoveMQItem(first), QueueChange::kTaken);
    EXPECT_EQ(MoveMQItem(first, "dl", "dlout"), QueueChange::kTaken);
    EXPECT_EQ(MoveMQItem(first, "dlout", "dl"), QueueChange::kNotThere);
    EXPECT_TRUE(CloseMQChannel(channel));
    EXPECT_EQ(MoveMQItem(first, "dl", "dlout"),
              QueueChange::kDone);  // last there, though it is older
    EXPECT_EQ(RemoveMQItem(third), QueueChange::kDone);
    EXPECT_EQ(RemoveMQItem(third), QueueChange::kNotThere);
    EXPECT_FALSE(std::filesystem::exists(GetMQPathName(third, ".msg")));
    EXPECT_EQ(Drain("dl"), Texts{});
    EXPECT_EQ(Drain("dlout"), (Texts{"22", "1"}));
    EXPECT_EQ(MoveMQItem(second, "dlout", "dl"), QueueChange::kNotThere);
}

}  // namespace dl::testing
