// dlctl queue: what is held goes back where it was, and nowhere by accident.

#include <cstdlib>

#include <gtest/gtest.h>

#include "platform/log/format.h"
#include "platform/queue/queue.h"
#include "tests/support/child.h"
#include "tests/support/fixture.h"
#include "tests/support/queued.h"

namespace dl::testing
{
namespace
{

class QueueCommands : public Fixture
{
 protected:
    QueueCommands()
    {
        Configure("[Queue]\nPath = " + Path("queue") + "\n[Relay]\nChannel = way-out\n");
        EXPECT_TRUE(MQInitAt(Path("queue")));
    }
    ~QueueCommands() override { MQEnd(); }

    // The exit status of "dlctl queue ..." with the entry's number behind it.
    int Queue(unsigned long id, std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "queue");
        arguments.push_back(FormatText("%08lX", id));
        return RunDlctl(Path("conf"), arguments, &output);
    }
    static std::string Channels(unsigned long id)
    {
        std::vector<QueueItem> items;
        std::string channels;
        EXPECT_TRUE(FindMQ(id, &items));
        for (const QueueItem& item : items)
            channels += (channels.empty() ? "" : " ") + item.channel;
        return channels;
    }
    std::string output;
};

TEST_F(QueueCommands, WhatIsHeldGoesBackWhereItWas)
{
    const struct {
        const char* name;
        const char* channel;
        std::vector<std::string> release;
        int status;
        const char* after;
        const char* said;
    } rows[] = {
        {"the way in", "dl", {"release"}, 0, "dl", "released"},
        {"the way out, where dlsend reads", "way-out", {"release"}, 0, "way-out", "released"},
        {"nobody serves it", "dlout", {"release"}, 1, "dlhold", "from channel dlout, which no"},
        {"nor when it is named", "dlout", {"release", "--to", "dlout"}, 1, "dlhold", "--force"},
        {"but by force", "dlout", {"release", "--force", "--to", "dlout"}, 0, "dlout", "released"},
        {"elsewhere", "other", {"release", "--to", "dl"}, 0, "dl", "released"},
        {"where it is", "dl", {"release", "--to", "dlhold"}, 1, "dlhold", "is where they are"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const unsigned long id = PutEntry("x", row.channel, "a@b.org", {"c@example.org"});
        ASSERT_EQ(Queue(id, {"hold"}), 0) << output;
        ASSERT_EQ(Channels(id), "dlhold");
        ASSERT_EQ(Queue(id, {"show"}), 0);
        EXPECT_NE(output.find("held from  " + std::string(row.channel) + "\n"), std::string::npos);
        EXPECT_EQ(Queue(id, row.release), row.status);
        EXPECT_NE(output.find(row.said), std::string::npos) << output;
        EXPECT_EQ(Channels(id), row.after);
    }
    EXPECT_EQ(Queue(0x123, {"release"}), 2) << output;
}

TEST_F(QueueCommands, ClosedStreamsAreNoFilesOfTheQueue)
{
    const unsigned long id = PutEntry("x", "dl", "a@b.org", {"c@example.org"});
    const std::string before = ReadFile(Path("queue/next.id"));
    setenv("DLMANAGER_CONF", Path("conf").c_str(), 1);
    const std::string dlctl = std::string(DL_BINARY) + "/bin/dlctl";
    (void)RunProgram({"/bin/sh", "-c", dlctl + " queue list <&- >&- 2>&-"});
    unsetenv("DLMANAGER_CONF");
    EXPECT_EQ(ReadFile(Path("queue/next.id")), before);
    EXPECT_EQ(ReadFile(Path("queue/entries.lock")), "");
    EXPECT_EQ(Channels(id), "dl");
}

TEST_F(QueueCommands, AnEntryOfTwoChannelsIsHeldAndReleasedWhole)
{
    NewMQEntry entry;
    ASSERT_TRUE(entry);
    const unsigned long id = GetMQId(entry.get());
    ASSERT_TRUE(InsertMQChannel(entry.get(), "dl", 0) &&
                InsertMQChannel(entry.get(), "way-out", 0));
    stEnvelope envelope;
    ASSERT_TRUE(PutMQEnvelope(entry.get(), &envelope) && entry.Close());
    EXPECT_EQ(Queue(id, {"hold"}), 0) << output;
    EXPECT_EQ(Channels(id), "dlhold dlhold");
    EXPECT_EQ(Queue(id, {"release"}), 0) << output;
    EXPECT_EQ(Channels(id), "dl way-out");
}

}  // namespace
}  // namespace dl::testing
