// Several entries closed together: each keeps its own fate, and the disk is waited for once.

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "tests/platform/queue/queue_fixture.h"

namespace
{

std::atomic<int> syncs{0};

}  // namespace

// The C library's own, counted; SQLite calls the second.
extern "C" int fsync(int fd)
{
    ++syncs;
    return static_cast<int>(syscall(SYS_fsync, fd));
}
extern "C" int fdatasync(int fd)
{
    ++syncs;
    return static_cast<int>(syscall(SYS_fdatasync, fd));
}

namespace dl::testing
{

class QueueGroup : public QueueFixture
{
 protected:
    static MQContext* Ready(const std::string& text, const std::string& channel = "dl")
    {
        MQContext* entry = CreateMQEntry();
        stEnvelope envelope = Envelope(text + "@example.org");
        EXPECT_TRUE(entry && FillEntry(entry, text) && PutMQEnvelope(entry, &envelope));
        EXPECT_EQ(InsertMQChannel(entry, channel, 0), !channel.empty());
        return entry;
    }
};

TEST_F(QueueGroup, AllAreThereInTheirOrderAfterOneWait)
{
    std::vector<MQContext*> entries;
    Texts texts;
    for (int i = 0; i < 20; ++i) {
        texts.push_back("m" + std::to_string(i));
        entries.push_back(Ready(texts.back()));
    }
    syncs = 0;
    EXPECT_EQ(CloseMQEntries(entries), std::vector<bool>(20, true));
    EXPECT_GE(syncs, 22) << "each file, the folder, the index";
    EXPECT_LE(syncs, 25) << "of twenty alone there would be sixty";
    EXPECT_EQ(Drain("dl"), texts);
    EXPECT_EQ(CloseMQEntries({}), std::vector<bool>());
}

TEST_F(QueueGroup, OneThatFailsDoesNotTouchTheOthers)
{
    log.ExpectError("was not put into the message queue: its file");
    MQContext* lost = Ready("lost");
    std::filesystem::remove(GetMQPathName(lost, ".msg"));
    EXPECT_EQ(CloseMQEntries({Ready("a"), lost, nullptr, Ready("nowhere", ""), Ready("b")}),
              (std::vector<bool>{true, false, false, false, true}));
    EXPECT_EQ(Files(), 2U);
    EXPECT_EQ(Drain("dl"), (Texts{"a", "b"}));
}

TEST_F(QueueGroup, OneThatTheIndexRefusesIsLeftOutAlone)
{
    log.ExpectError("was not put into the message queue: the index");
    const unsigned long taken = Put("first");
    PendingEntry again;
    PendingEntry good;
    again.id = static_cast<std::uint32_t>(taken);
    again.channels = {{"dl", 0}};
    QueueBackend* backend = CurrentQueueBackend();
    good.id = backend->Reserve().value_or(0);
    good.channels = {{"dl", 0}};
    EXPECT_EQ(backend->PublishMany({&again, &good}), (std::vector<bool>{false, true}));
    const std::vector<QueueItem> items = QueueItems("dl");
    ASSERT_EQ(items.size(), 2U);
    EXPECT_EQ(items[1].id, good.id);
}

}  // namespace dl::testing
