#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <fstream>
#include <functional>

#include "tests/platform/queue/queue_fixture.h"

namespace dl::testing
{

namespace
{

// While it lives no file of this process can be written beyond its first bytes.
class NoRoom
{
 public:
    NoRoom()
    {
        before_handler_ = signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        rlimit small = before_;
        small.rlim_cur = 16;
        setrlimit(RLIMIT_FSIZE, &small);
    }
    ~NoRoom()
    {
        setrlimit(RLIMIT_FSIZE, &before_);
        signal(SIGXFSZ, before_handler_);
    }

 private:
    rlimit before_{};
    void (*before_handler_)(int);
};

// A small disk of its own at `path`.
class SmallDisk
{
 public:
    explicit SmallDisk(std::string path) : path_(std::move(path))
    {
        std::filesystem::create_directories(path_);
        mounted_ = mount("none", path_.c_str(), "tmpfs", 0, "size=4m") == 0;
    }
    ~SmallDisk()
    {
        if (mounted_)
            umount2(path_.c_str(), MNT_DETACH);
    }
    [[nodiscard]] bool mounted() const { return mounted_; }
    void Fill() const
    {
        std::ofstream file(path_ + "/filler", std::ios::binary | std::ios::app);
        const std::string block(4096, 'x');
        while (file.write(block.data(), 4096) && file.flush()) {
        }
    }
    void Free() const { std::filesystem::remove(path_ + "/filler"); }

 private:
    std::string path_;
    bool mounted_ = false;
};

void Overwrite(const std::string& path, std::size_t place, const std::string& bytes)
{
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(place));
    file << bytes;
}

}  // namespace

class QueueFault : public QueueFixture
{
 protected:
    int Errors()
    {
        const int count = static_cast<int>(log.Texts(1).size());
        log.Clear();
        return count;
    }
};

TEST_F(QueueFault, WhatCannotBeOpenedSaysWhyInOneLine)
{
    const struct {
        const char* name;
        const char* line;
        std::function<void()> harm;
    } rows[] = {
        {"a file for the folder", "cannot be made: Not a directory",
         [&] { std::filesystem::remove_all(folder), Write("queue", "x"); }},
        {"a file for the message folder", "cannot be made: Not a directory",
         [&] { std::filesystem::remove_all(folder + "/msg"), Write("queue/msg", "x"); }},
        {"garbage for an index", "index.db: the index is damaged",
         [&] { Write("queue/index.db", std::string(8192, '?')); }},
        {"garbage inside the index", "the index is damaged",
         [&] { Overwrite(folder + "/index.db", 100, std::string(4000, '?')); }},
        {"a folder for an index", "index.db: the index cannot be opened",
         [&] {
             std::filesystem::remove(folder + "/index.db");
             std::filesystem::create_directory(folder + "/index.db");
         }},
        {"a newer index", "index.db: the index was written by a newer version of this program",
         [&] { Overwrite(folder + "/index.db", 60, std::string("\0\0\0\x7f", 4)); }},
        {"another program's database", "index.db: the file is not the index of a message queue",
         [&] { Overwrite(folder + "/index.db", 68, "abcd"); }},
        {"no index, but messages",
         "index.db: the index is missing or empty, but there are message files",
         [&] { std::filesystem::remove(folder + "/index.db"); }},
        {"an empty index, but messages", "index.db: the index is missing or empty",
         [&] { Write("queue/index.db", ""); }},
        {"a folder for the lock file", "entries.lock cannot be opened: Is a directory",
         [&] {
             std::filesystem::remove(folder + "/entries.lock");
             std::filesystem::create_directory(folder + "/entries.lock");
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove_all(folder);
        ASSERT_TRUE(MQInitAt(folder));
        ASSERT_NE(Put("precious"), 0U);
        MQEnd();
        const auto files = [&] {
            return std::filesystem::is_directory(folder + "/msg") ? Files() : 1;
        };
        row.harm();
        log.ExpectError(row.line);
        EXPECT_FALSE(MQInitAt(folder));
        EXPECT_EQ(Errors(), 1);
        EXPECT_EQ(files(), 1U) << "the message itself must stay";
    }
}

TEST_F(QueueFault, AMessageFileThatCannotBeSyncedIsNotInTheQueue)
{
    const struct {
        const char* name;
        const char* line;
        std::function<void(const std::string&)> harm;
    } rows[] = {
        {"missing", "cannot be opened: No such file or directory", [](const std::string&) {}},
        {"a folder", "is no file",
         [](const std::string& path) { std::filesystem::create_directory(path); }},
        {"a link to somewhere else", "cannot be opened",
         [](const std::string& path) { std::filesystem::create_symlink("/etc/passwd", path); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        NewMQEntry entry;
        const std::string path = GetMQPathName(entry.get(), ".msg");
        std::filesystem::remove(path);
        row.harm(path);
        stEnvelope envelope = Envelope("a@example.org");
        log.ExpectError(row.line);
        EXPECT_EQ(Submit(std::move(entry), "dl", 0, &envelope), Submission::kCloseFailed);
        EXPECT_EQ(Errors(), 1);
        std::filesystem::remove(path);
    }
    EXPECT_EQ(Drain("dl"), Texts{});
}

TEST_F(QueueFault, NothingIsLostOrSilentWhileNothingCanBeWritten)
{
    Put("waiting");
    MQContext* channel = OpenMQChannel("dl");
    ASSERT_EQ(Text(GetFirstMessage(channel, false)), "waiting");
    NewMQEntry entry;
    ASSERT_TRUE(FillEntry(entry.get(), "new"));
    stEnvelope envelope = Envelope("a@example.org");
    log.ExpectError("was not put into the message queue: the index cannot be read or written");
    log.ExpectError("cannot be taken out of channel dl of the message queue: the index cannot be");
    log.ExpectError("Channel dl of the message queue cannot be read: the index cannot be");
    log.ExpectError("Channel other of the message queue cannot be read: the index cannot be");
    log.ExpectError("Channel dl of the message queue can be read again");
    log.ExpectError("cannot be removed from the message queue: the index cannot be");
    {
        const NoRoom no_room;
        EXPECT_EQ(Submit(std::move(entry), "dl", 0, &envelope), Submission::kCloseFailed);
        EXPECT_EQ(Errors(), 1);
        EXPECT_FALSE(RemoveMQChannel(channel));
        EXPECT_EQ(Errors(), 1);
        EXPECT_EQ(GetFirstMessage(channel, false), kQueueFailed);
        EXPECT_EQ(Errors(), 1);
        EXPECT_EQ(OpenMQChannel("other"), nullptr);
        EXPECT_EQ(Errors(), 1);
        EXPECT_EQ(QueueItems().size(), 1U);  // reading needs no room
    }
    // The removal that failed is done before anything is handed out: nobody gets the message twice.
    EXPECT_EQ(Pass(channel, true), Texts{});
    EXPECT_EQ(Errors(), 1);
    EXPECT_EQ(Files(), 0U);
    const unsigned long id = Put("after");
    {
        const NoRoom no_room;
        EXPECT_EQ(RemoveMQItem(id), QueueChange::kFailed);
        EXPECT_EQ(Errors(), 1);
    }
    EXPECT_EQ(Pass(channel, true), Texts{"after"});
    EXPECT_TRUE(CloseMQChannel(channel));
}

TEST_F(QueueFault, AFullDiskIsAClearErrorAndNothingIsLost)
{
    MQEnd();
    const SmallDisk disk(Path("disk"));
    if (!disk.mounted())
        GTEST_SKIP() << "a disk of its own needs root; the limit of file sizes stands for it above";
    ASSERT_TRUE(MQInitAt(Path("disk/queue")));
    Texts accepted;
    for (const char* text : {"1", "2", "3"}) {
        ASSERT_NE(Put(text), 0U);
        accepted.emplace_back(text);
    }
    log.ExpectError("was not put into the message queue: the disk is full");
    int refused = 0;
    for (int i = 4; i < 400 && refused < 3; ++i) {
        disk.Free();
        NewMQEntry entry;
        ASSERT_TRUE(entry && FillEntry(entry.get(), std::to_string(i)));
        disk.Fill();  // the message still found room, the index may not
        stEnvelope envelope = Envelope("a@example.org");
        if (Submit(std::move(entry), "dl", 0, &envelope) == Submission::kDone)
            accepted.push_back(std::to_string(i));
        else
            ++refused;
    }
    EXPECT_EQ(refused, 3);
    EXPECT_EQ(Errors(), 3);
    // Who looks every second is told once, and once that it is over.
    log.ExpectError("Channel dl of the message queue cannot be read: the disk is full");
    log.ExpectError("Channel dl of the message queue can be read again");
    MQContext* channel = OpenMQChannel("dl");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(GetFirstMessage(channel, false), kQueueFailed);
    EXPECT_EQ(Errors(), 1);
    disk.Free();
    EXPECT_NE(Put("last"), 0U);
    accepted.emplace_back("last");
    EXPECT_EQ(Pass(channel, true), accepted);
    EXPECT_EQ(Errors(), 1);
    EXPECT_TRUE(CloseMQChannel(channel));
    MQEnd();
}

TEST_F(QueueFault, AReadOnlyDiskIsAClearError)
{
    MQEnd();
    const SmallDisk disk(Path("disk"));
    if (!disk.mounted())
        GTEST_SKIP() << "a disk of its own needs root";
    ASSERT_TRUE(MQInitAt(Path("disk/queue")));
    ASSERT_NE(Put("1"), 0U);
    MQEnd();
    ASSERT_EQ(mount("none", Path("disk").c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, ""), 0);
    log.ExpectError("the disk is read-only");
    EXPECT_FALSE(MQInitAt(Path("disk/queue")));
    EXPECT_EQ(Errors(), 1);
    EXPECT_EQ(CreateMQEntry(), nullptr);  // there is no queue: MQInit has said so
    ASSERT_EQ(mount("none", Path("disk").c_str(), "tmpfs", MS_REMOUNT, ""), 0);
    ASSERT_TRUE(MQInitAt(Path("disk/queue")));
    EXPECT_EQ(Drain("dl"), Texts{"1"});
    MQEnd();
}

TEST_F(QueueFault, AFolderThatVanishesIsAClearError)
{
    std::filesystem::rename(folder, folder + ".away");
    log.ExpectError("cannot be made: No such file or directory");
    EXPECT_EQ(CreateMQEntry(), nullptr);
    EXPECT_EQ(Errors(), 1);
}

TEST_F(QueueFault, DamageThatShowsLaterIsAnErrorNotACrash)
{
    for (int i = 0; i < 200; ++i)
        ASSERT_NE(Put(std::to_string(i)), 0U);
    MQEnd();
    const std::string good = ReadFile(folder + "/index.db");
    const auto files = Files();
    log.ExpectError("the index is damaged");
    int refused = 0;
    for (std::size_t page = 4096; page < good.size(); page += 4096) {
        SCOPED_TRACE(page);
        Write("queue/index.db", good);
        Overwrite(folder + "/index.db", page, std::string(4096, '\xa5'));
        bool failed = !MQInitAt(folder);
        if (!failed) {
            std::vector<QueueItem> items;
            MQContext* channel = OpenMQChannel("dl");
            const long id = channel ? GetFirstMessage(channel, false) : kQueueFailed;
            failed = !ListMQ("", 0, &items) || id == kQueueFailed ||
                     GetMQEnvelope(static_cast<unsigned long>(id)).failed;
            if (channel)
                failed = !CloseMQChannel(channel) || failed;
        }
        refused += failed ? 1 : 0;
        EXPECT_EQ(failed, Errors() > 0);
        MQEnd();
    }
    EXPECT_GT(refused, 3);
    EXPECT_EQ(Files(), files);  // a sweep believes no damaged index
    Write("queue/index.db", good);
    ASSERT_TRUE(MQInitAt(folder));
    EXPECT_EQ(Drain("dl").size(), 200U);
}

TEST_F(QueueFault, ADamagedEnvelopeIsAFailureNotAMissingOne)
{
    const auto backend = OpenSqliteQueue(folder, 5);
    PendingEntry entry;
    entry.id = backend->Reserve().value();
    entry.channels = {{"dl", 0}};
    entry.envelope = "\x7fnot an envelope";
    ASSERT_TRUE(backend->Publish(entry));
    log.ExpectError("is damaged");
    EXPECT_TRUE(GetMQEnvelope(entry.id).failed);
}

}  // namespace dl::testing
