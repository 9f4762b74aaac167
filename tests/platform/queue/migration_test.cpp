// An index of an older format, and of a newer one.

#include <set>

#include "platform/queue/delivery.h"
#include "platform/queue/work.h"
#include "tests/platform/queue/queue_fixture.h"
#include "tests/support/child.h"
#include "tests/support/killed.h"

namespace dl::testing
{
namespace
{

class Migration : public QueueFixture
{
 protected:
    void SetUp() override { PutOld(1); }
    void PutOld(int format)
    {
        std::filesystem::remove_all(folder);
        Write("queue/msg/4190AB01.msg", "first");
        Write("queue/msg/4190AB02.msg", "second");
        const std::string sql = "queue/format" + std::to_string(format) + ".sql";
        ASSERT_EQ(Sql("queue/index.db", ".read " + DataPath(sql)), "wal\n");
    }
    // What the database's own program answers.
    [[nodiscard]] std::string Sql(const std::string& file, const std::string& command) const
    {
        std::string output;
        const int status = RunProgram({"/usr/bin/sqlite3", Path(file), command}, &output);
        return status == 0 ? output : "failed: " + output;
    }
    [[nodiscard]] std::string Backup() const { return Path("queue/index.db.format-1"); }
};

TEST_F(Migration, AnOlderIndexIsCopiedAndBroughtUpToDate)
{
    for (int format = 1; format < kQueueFormat; ++format) {
        SCOPED_TRACE(format);
        const std::string old = std::to_string(format);
        const std::string now = std::to_string(kQueueFormat);
        const std::string backup = Path("queue/index.db.format-" + old);
        PutOld(format);
        const QueueOverview before = ReadQueueOverview(folder);
        EXPECT_EQ(before.state, QueueOverview::State::kRead);
        EXPECT_EQ(before.format, format);
        EXPECT_EQ(before.channels.size(), 2U);
        EXPECT_FALSE(std::filesystem::exists(backup)) << "looking changes nothing";

        ASSERT_TRUE(MQInitAt(folder));
        EXPECT_TRUE(log.HasPart("was brought from format " + old + " to " + now +
                                ", the old one is kept as " + backup));
        EXPECT_EQ(
            Sql("queue/index.db.format-" + old, "PRAGMA user_version; SELECT count(*) FROM chan"),
            old + "\n2\n");
        EXPECT_EQ(Sql("queue/index.db", "PRAGMA user_version; PRAGMA integrity_check"),
                  now + "\nok\n");

        // What was waiting is taken, and what the old format could not do can be done.
        EXPECT_EQ(Drain("dl"), std::vector<std::string>{"first"});
        EXPECT_TRUE(SetMQMark("mark", "set"));
        EXPECT_TRUE(HasMQRoomFor(1));
        const QueueItem waiting = QueueItems("dlout").at(0);
        EXPECT_EQ(waiting.attempts, 0) << "earlier formats counted what was nobody's fault";
        EXPECT_TRUE(waiting.suspect);
        EXPECT_EQ(waiting.tries, format == 1 ? 0 : 2);
        const auto channel = DeliveryChannel::Open("dlout");
        std::vector<DueEntry> due;
        ASSERT_TRUE(channel && channel->Take(100, 10, &due));
        ASSERT_EQ(due.size(), 1U);
        DeliveryStep step;
        step.id = due[0].id;
        step.answers = {{0, RecipientState::kDelivered, ""},
                        {1, RecipientState::kWaiting, "later"}};
        step.end = DeliveryStep::End::kPutBack;
        step.due = 500;
        ASSERT_TRUE(channel->Record({&step, 1}));
        std::int64_t next = 0;
        EXPECT_EQ(channel->Waiting(&next), QueueAnswer::kYes);
        EXPECT_EQ(next, 500);

        log.Clear();
        ASSERT_TRUE(MQInitAt(folder));
        EXPECT_FALSE(log.HasPart("format")) << "once is enough";
    }
}

TEST_F(Migration, WithoutACopyNothingIsChanged)
{
    std::filesystem::create_directory(Backup());
    log.ExpectError("no copy of the index can be written to " + Backup());
    EXPECT_FALSE(MQInitAt(folder));
    EXPECT_EQ(Sql("queue/index.db", "PRAGMA user_version"), "1\n");
    std::filesystem::remove(Backup());
    EXPECT_TRUE(MQInitAt(folder));
    EXPECT_EQ(Drain("dl"), std::vector<std::string>{"first"});
}

// A part of a copy that a crash has left is no copy, and the tables of a version between the two
// are no obstacle.
TEST_F(Migration, WhatIsThereAlreadyIsNoObstacle)
{
    Write("queue/index.db.format-1", "half");
    ASSERT_EQ(Sql("queue/index.db",
                  "ALTER TABLE chan ADD COLUMN due INTEGER NOT NULL DEFAULT 0;"
                  "CREATE TABLE delivery (entry INTEGER PRIMARY KEY, tries INTEGER NOT NULL DEFAULT"
                  " 0, problem TEXT NOT NULL DEFAULT \"\", states BLOB NOT NULL)"),
              "");
    ASSERT_TRUE(MQInitAt(folder));
    EXPECT_EQ(Drain("dl"), std::vector<std::string>{"first"});
    EXPECT_EQ(Sql("queue/index.db.format-1", "PRAGMA user_version"), "1\n");
}

TEST_F(Migration, ANewerIndexIsRefusedAndLeftAlone)
{
    ASSERT_EQ(Sql("queue/index.db", "PRAGMA user_version=4"), "");
    log.ExpectError(
        "was written by a newer version of this program (format 4, this one knows "
        "formats up to 3)");
    EXPECT_FALSE(MQInitAt(folder));
    EXPECT_EQ(ReadQueueOverview(folder).state, QueueOverview::State::kNewer);
    EXPECT_EQ(Sql("queue/index.db", "PRAGMA user_version; SELECT count(*) FROM chan"), "4\n2\n");
    EXPECT_FALSE(std::filesystem::exists(Backup()));
    EXPECT_EQ(Files(), 2U);
}

// As many entries as keep the copy and the new tables busy for a while, in the middle of which a
// process is killed.
TEST_F(Migration, AKillInTheMiddleKeepsEveryEntryOnce)
{
    namespace fs = std::filesystem;
    constexpr std::size_t kMore = 3000;
    ASSERT_EQ(
        Sql("queue/index.db",
            "WITH RECURSIVE n(i) AS (SELECT 1200000000 UNION ALL SELECT i + 1 FROM n LIMIT "
            "3000) INSERT INTO entry SELECT i, \"anna@example.com\", 2, 6, i FROM n;"
            "INSERT INTO envelope SELECT id, zeroblob(1000) FROM entry WHERE id >= 1200000000;"
            "INSERT INTO chan (channel, entry, priority) SELECT \"dlout\", id, 0 FROM entry"
            " WHERE id >= 1200000000; PRAGMA wal_checkpoint(TRUNCATE)"),
        "0|0|0\n");
    const std::string index = folder + "/index.db";
    const std::string kept = Path("kept.db");
    fs::copy_file(index, kept);
    const auto prepare = [&] { PutIndexBack(kept, index); };
    const auto look = [&] {
        EXPECT_TRUE(fs::exists(Backup()) || Sql("queue/index.db", "PRAGMA user_version") == "1\n");
        ASSERT_TRUE(MQInitAt(folder));
        const std::vector<QueueItem> items = QueueItems();
        std::set<unsigned long> ids;
        for (const QueueItem& item : items)
            ids.insert(item.id);
        EXPECT_EQ(items.size(), kMore + 2);
        EXPECT_EQ(ids.size(), items.size());
        MQEnd();
        EXPECT_FALSE(fs::exists(Backup() + ".part"));
        EXPECT_EQ(Sql("queue/index.db.format-1", "PRAGMA user_version; SELECT count(*) FROM chan"),
                  "1\n" + std::to_string(kMore + 2) + "\n");
        EXPECT_EQ(Sql("queue/index.db", "PRAGMA user_version; PRAGMA integrity_check"), "3\nok\n");
    };
    const auto migrate = [&] { return MQInitAt(folder); };
    const auto copied = [&] { return fs::exists(Backup()); };
    EXPECT_GT(KillAtEachMoment(6, {prepare, migrate, look}), 0);
    EXPECT_GT(KillAtEachMoment(8, {prepare, migrate, look, copied}), 0);
}

TEST_F(Migration, TheOverviewCountsByChannel)
{
    ASSERT_TRUE(MQInitAt(folder));
    clock.now += 60;
    ASSERT_NE(Put("third"), 0U);
    const auto channel = DeliveryChannel::Open("dlout");
    std::vector<DueEntry> due;
    ASSERT_TRUE(channel && channel->Take(100, 10, &due));
    const QueueOverview seen = ReadQueueOverview(folder);
    ASSERT_EQ(seen.channels.size(), 2U);
    EXPECT_EQ(seen.channels[0].channel, "dl");
    EXPECT_EQ(seen.channels[0].waiting, 2);
    EXPECT_EQ(seen.channels[0].oldest, 1'100'000'001);
    EXPECT_EQ(seen.channels[1].taken, 1);
    EXPECT_EQ(ReadQueueOverview(Path("none")).state, QueueOverview::State::kNoQueue);
}

}  // namespace
}  // namespace dl::testing
