// Works: what handling messages makes, and their removal, in one commit.

#include "platform/queue/work.h"

#include <csignal>
#include <optional>

#include "tests/platform/queue/queue_fixture.h"
#include "tests/support/child.h"
#include "tests/support/failing_queue.h"

namespace dl::testing
{

class Work : public QueueFixture
{
 protected:
    static std::string Of(const std::string& channel)
    {
        std::string texts;
        for (const QueueItem& item : QueueItems(channel))
            texts += (texts.empty() ? "" : " ") + Text(item.id);
        return texts;
    }
    // What stands in the queue: "<dl>|<dlout>|<marks>".
    static std::string Seen()
    {
        std::map<std::string, std::string> marks;
        EXPECT_TRUE(ReadMQMarks("", &marks));
        std::string names;
        for (const auto& [name, value] : marks)
            names += (names.empty() ? "" : " ") + name + "=" + value;
        return Of("dl") + "|" + Of("dlout") + "|" + names;
    }
    // Takes the next message and makes two of it.
    static void Handle(MQContext* channel, const std::string& mark)
    {
        ASSERT_GT(GetNextMessage(channel, false), 0);
        const std::string text = Text(GetMQId(channel));
        EXPECT_NE(Put(text + "1", "dlout"), 0U);
        EXPECT_NE(Put(text + "2", "dlout"), 0U);
        EXPECT_TRUE(SetMQMark(mark, text));
        EXPECT_TRUE(RemoveMQChannel(channel));
    }
};

TEST_F(Work, NothingIsVisibleOrGoneBeforeTheCommit)
{
    for (const char* text : {"a", "b", "c"})
        Put(text);
    ASSERT_TRUE(SetMQMark("old", "x"));
    MQContext* channel = OpenMQChannel("dl");
    {
        MQWork work;
        EXPECT_EQ(MQWork::Current(), &work);
        Handle(channel, "first");
        work.EndPart();
        Handle(channel, "second");
        EXPECT_TRUE(SetMQMark("old", std::nullopt));
        work.EndPart();
        ASSERT_GT(GetNextMessage(channel, false), 0);
        EXPECT_NE(Put("c1", "dlout"), 0U);
        EXPECT_EQ(work.Parts(), 2U);
        EXPECT_EQ(Seen(), "a b c||old=x");
        EXPECT_EQ(Files(), 8U);
        EXPECT_TRUE(work.Commit(2));
        EXPECT_EQ(Seen(), "c|a1 a2 b1 b2|first=a second=b");
        EXPECT_EQ(work.Parts(), 0U);
        work.DropPart();
        EXPECT_EQ(Files(), 5U) << "what was removed, and what was dropped, leaves no file";
        EXPECT_NE(Put("never", "dlout"), 0U);
    }
    EXPECT_EQ(MQWork::Current(), nullptr);
    EXPECT_EQ(Files(), 5U);
    EXPECT_TRUE(CloseMQChannel(channel));
    EXPECT_EQ(Drain("dl"), Texts{"c"}) << "it stayed with its reader, and was given back";
}

TEST_F(Work, APartThatFailsTakesNothingWithItAndCanBeTriedAgain)
{
    MQEnd();
    FailingQueue queue(folder);
    for (const char* text : {"a", "b"})
        Put(text);
    MQContext* channel = OpenMQChannel("dl");
    MQWork work;
    Handle(channel, "first");
    work.EndPart();
    Handle(channel, "second");
    work.EndPart();
    queue.FailNext(QueueCall::kPrepare);
    EXPECT_FALSE(work.Commit(2));
    queue.FailNext(QueueCall::kCommit);
    EXPECT_FALSE(work.Commit(2));
    EXPECT_EQ(Seen(), "a b||");
    EXPECT_TRUE(work.Commit(1));
    EXPECT_EQ(Seen(), "b|a1 a2|first=a");
    EXPECT_EQ(work.Parts(), 1U);
    queue.FailNext(QueueCall::kCommit);
    EXPECT_FALSE(work.Commit(1));
    EXPECT_TRUE(work.Commit(1));
    EXPECT_EQ(Seen(), "|a1 a2 b1 b2|first=a second=b");
    EXPECT_TRUE(CloseMQChannel(channel));
}

// The same by faults of the real index and files.
TEST_F(Work, WhatTheQueueItselfCannotDo)
{
    Put("a");
    Put("b");
    MQContext* channel = OpenMQChannel("dl");
    MQWork work;
    ASSERT_GT(GetNextMessage(channel, false), 0);
    const unsigned long made = Put("a1", "dlout");
    {
        NewMQEntry nowhere;
        EXPECT_FALSE(nowhere.Close()) << "it is in no channel";
    }
    EXPECT_TRUE(RemoveMQChannel(channel));
    work.EndPart();
    const std::string file = GetMQPathName(made, ".msg");
    std::filesystem::rename(file, file + ".away");
    log.ExpectError("was not put into the message queue: its file");
    EXPECT_FALSE(work.Commit(1));
    EXPECT_EQ(Seen(), "a b||");
    std::filesystem::rename(file + ".away", file);
    EXPECT_TRUE(work.Commit(1));
    EXPECT_EQ(Seen(), "b|a1|");

    ASSERT_GT(GetNextMessage(channel, false), 0);
    EXPECT_NE(Put("b1", "dlout"), 0U);
    EXPECT_TRUE(RemoveMQChannel(channel));
    work.EndPart();
    EXPECT_TRUE(CloseMQChannel(channel));
    log.ExpectError(
        "What was made of message 4190AB01 cannot be written to the message queue: it is"
        " not this reader's any more");
    EXPECT_FALSE(work.Commit(1));
    EXPECT_EQ(Seen(), "b|a1|");
}

// A process dies at each step of a work: the message and nothing of it, or all of it and no
// message.
TEST_F(Work, ADeathLeavesAllOrNothing)
{
    for (int step = 0; step < 5; ++step) {
        SCOPED_TRACE(step);
        Put("a");
        MQEnd();
        EXPECT_EQ(InChild([&] {
                      MQContext* channel = MQInitAt(folder) ? OpenMQChannel("dl") : nullptr;
                      const auto die_at = [&](int here) { return here == step && raise(SIGKILL); };
                      MQWork work;
                      Handle(channel, "done");
                      (void)die_at(0);
                      work.EndPart();
                      (void)die_at(1);
                      bool done = work.Prepare(1);
                      (void)die_at(2);
                      done = done && work.Commit(1);
                      (void)die_at(3);
                      done = done && CloseMQChannel(channel);
                      (void)die_at(4);
                      return done ? 1 : 2;
                  }),
                  -SIGKILL);
        ASSERT_TRUE(MQInitAt(folder));
        EXPECT_EQ(Seen(), step < 3 ? "a||" : "|a1 a2|done=a");
        EXPECT_EQ(Files(), step < 3 ? 1U : 2U) << "what the dead process had begun is swept";
        Drain("dl");
        Drain("dlout");
        ASSERT_TRUE(SetMQMark("done", std::nullopt));
    }
}

}  // namespace dl::testing
