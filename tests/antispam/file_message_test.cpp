// Filing: what is stored, and that a failing step leaves nothing.

#include "antispam/file_message.h"

#include <sys/stat.h>

#include <functional>

#include "tests/antispam/mailbox_fixture.h"
#include "tests/support/child.h"
#include "tests/support/failing_files.h"

namespace dl::testing
{
namespace
{

namespace fs = std::filesystem;

constexpr char kMessage[] = "Subject: hi\r\nFrom: a@b.c\r\n\r\nbody\r\n";

class FileMessageTest : public MailboxFixture
{
 protected:
    bool File(const std::string& message, const std::string& folder)
    {
        return FileMessage(Path("mbx"), Write("in.msg", message), folder);
    }
};

TEST_F(FileMessageTest, StoresTheMessageAndItsRecords)
{
    SetZone("EST5EDT");
    EXPECT_TRUE(File(kMessage, "spam"));
    EXPECT_EQ(Folder("spam"), "flags 5, counters 1 1 1, next 1; 0 stat env parts 1; files 0");
    EXPECT_EQ(ReadFile(Path("mbx/spam/0")), std::string("\x11\0\0\0\r\n", 6) + kMessage);
    diamondBase session;
    msgstat stats(session, Path("mbx/spam"));
    msgstat_record record;
    ASSERT_EQ(stats.GetMsgStat(0, &record), kStoreDone);
    const std::vector<int> when = {record.day,        record.month,       record.year,
                                   record.hour,       record.minute,      record.second,
                                   record.zone_hours, record.zone_minutes};
    EXPECT_EQ(when, (std::vector<int>{9, 11, 34, 6, 33, 20, 5, 0}));
    EXPECT_TRUE(record.zone_negative);
    EXPECT_TRUE(File(kMessage, "spam"));
    EXPECT_EQ(Folder("spam"),
              "flags 5, counters 2 2 2, next 2; 0 stat env parts 1; 1 stat env parts 1; files 0 1");
}

TEST_F(FileMessageTest, HeaderLengths)
{
    const std::pair<std::string, std::int64_t> rows[] = {
        {"A: b\r\n\r\nbody", 6},
        {"A: b\r\nC: d\r\n", 9},  // no empty line: where the search stopped
        {"A:", 0},
        {"", 0},
        {std::string("A: \0b\r\n\r\nx", 10), 3},  // a NUL byte ends the search
    };
    std::int64_t uid = 0;
    for (const auto& [message, header] : rows) {
        SCOPED_TRACE(message);
        EXPECT_TRUE(File(message, "spam"));
        diamondBase session;
        msgstat stats(session, Path("mbx/spam"));
        msgstat_record record;
        ASSERT_EQ(stats.GetMsgStat(uid++, &record), kStoreDone);
        EXPECT_EQ(record.header, header);
        EXPECT_EQ(record.size, static_cast<std::int64_t>(message.size()));
    }
}

TEST_F(FileMessageTest, EveryLevelIsAFolderOfItsOwn)
{
    chmod(Path("template/msgstat.db").c_str(), 0640);
    EXPECT_TRUE(File(kMessage, "a/b"));
    EXPECT_EQ(Folder("a"), "flags 1, counters 0 0 0, next 0; files b");
    EXPECT_EQ(Folder("a/b"), "flags 5, counters 1 1 1, next 1; 0 stat env parts 1; files 0");
    for (const char* name : kStoreFiles)
        for (const char* folder : {"mbx/a/", "mbx/a/b/"})
            EXPECT_TRUE(fs::exists(Path(folder) + name)) << folder << name;
    EXPECT_EQ(fs::status(Path("mbx/a/b/msgstat.db")).permissions(), fs::perms(0640));
    EXPECT_TRUE(File(kMessage, "a/c"));
    EXPECT_TRUE(File(kMessage, "a"));
    EXPECT_EQ(Folder("a"), "flags 5, counters 1 1 1, next 1; 0 stat env parts 1; files 0 b c");
}

TEST_F(FileMessageTest, FolderNames)
{
    for (const char* name : {"spam", "a/b/c", "2024", "Gr\xc3\xbc\xc3\x9f it's"}) {
        EXPECT_TRUE(IsFolderName(name)) << name;
        EXPECT_TRUE(File(kMessage, name)) << name;
    }
    log.ExpectError("FileMessage - Catch error: -3");
    for (const char* name : {"", "/spam", "/etc/x", "..", "a/../../b", ".", "a//b", "a/", ".hidden",
                             "a/.new", "a\nb", "a/12"}) {
        EXPECT_FALSE(IsFolderName(name)) << name;
        EXPECT_FALSE(File(kMessage, name)) << name;
    }
    EXPECT_FALSE(IsFolderName(std::string("a\0b", 3)));
}

TEST_F(FileMessageTest, AFailingStepLeavesNothing)
{
    const std::string kNested =
        "Content-Type: message/rfc822\r\nMime-Version: 1.0\r\n\r\nSubject: inner\r\n\r\nx\r\n";
    using Deed = std::function<void()>;
    const auto sql = [this](const char* file, const std::string& command) -> Deed {
        return [=, this] { Sql(file, command); };
    };
    const auto fail_on = [&](const char* file, const std::string& event) {
        return sql(file,
                   "CREATE TRIGGER t BEFORE " + event + " BEGIN SELECT RAISE(ABORT, 'no'); END");
    };
    const auto mend = [&](const char* file) { return sql(file, "DROP TRIGGER t"); };
    const struct {
        const char* name;
        Deed break_it, mend;
        int number = -9;
        const char* path = nullptr;  // of the message; null: a good one
    } rows[] = {
        {"message missing", [] {}, [] {}, -4, "missing.msg"},
        {"message is a folder", [] {}, [] {}, -4, "template"},
        {"no statistics of the folder", sql("mailbox.db", "UPDATE mailbox SET folder = 'x'"),
         sql("mailbox.db", "UPDATE mailbox SET folder = 'spam'"), -8},
        {"statistics record", fail_on("spam/msgstat.db", "INSERT ON msgstat"),
         mend("spam/msgstat.db")},
        {"envelope", fail_on("spam/msgenv.db", "INSERT ON msgenv"), mend("spam/msgenv.db")},
        {"body", fail_on("spam/msgbody.db", "INSERT ON msgbody"), mend("spam/msgbody.db")},
        {"inner envelope", fail_on("spam/msgenv.db", "INSERT ON msgenv WHEN NEW.number > 0"),
         mend("spam/msgenv.db")},
        {"counters", fail_on("mailbox.db", "UPDATE ON mailbox"), mend("mailbox.db")},
        {"a database file is gone", [&] { fs::rename(Path("mbx/spam/msgenv.db"), Path("away")); },
         [&] { fs::rename(Path("away"), Path("mbx/spam/msgenv.db")); }},
        {"a folder in the file's place", [&] { fs::create_directory(Path("mbx/spam/1")); },
         [&] { fs::remove(Path("mbx/spam/1")); }},
    };
    ASSERT_TRUE(File(kNested, "spam"));
    const std::string before = Folder("spam");
    EXPECT_EQ(before, "flags 5, counters 1 1 1, next 1; 0 stat env inner parts 2; files 0");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        row.break_it();
        const std::string message = row.path ? Path(row.path) : Write("in.msg", kNested);
        log.ExpectError("FileMessage - Catch error: " + std::to_string(row.number));
        EXPECT_FALSE(FileMessage(Path("mbx"), message, "spam"));
        row.mend();
        EXPECT_EQ(Folder("spam"), before);
    }
    for (const FileCall call : {FileCall::kCreate, FileCall::kWrite}) {
        FailingFiles disk;
        disk.FailNth(call, 1);
        EXPECT_FALSE(File(kNested, "spam"));
        EXPECT_EQ(Folder("spam"), before);
    }
    EXPECT_TRUE(File(kNested, "spam")) << "after all of that";
    EXPECT_EQ(log.Lines().back().level, 1);
    EXPECT_EQ(log.Lines().back().module, "Bayesian filter");
}

TEST_F(FileMessageTest, UnreadableMessages)
{
    // Files of the kernel that say a size and give less, or that nobody may open for reading.
    const struct {
        const char* path;
        int number;
    } rows[] = {{"/sys/kernel/mm/transparent_hugepage/enabled", -7},
                {"/sys/bus/platform/drivers_probe", -6}};
    for (const auto& row : rows) {
        if (!fs::exists(row.path))
            continue;
        SCOPED_TRACE(row.path);
        log.ExpectError("FileMessage - Catch error: " + std::to_string(row.number));
        EXPECT_FALSE(FileMessage(Path("mbx"), row.path, "spam"));
        EXPECT_EQ(Folder("spam"), "flags 1, counters 0 0 0, next 0; files");
    }
}

TEST_F(FileMessageTest, AFolderThatCannotBeMadeIsNotThere)
{
    const std::function<void()> breaks[] = {
        [&] { fs::remove(Path("template/msgenv.str")); },
        [&] { Write("conf/qvmta.ini", ""); },
        [&] { fs::rename(Path("mbx"), Path("other")); },
        [&] { Write("mbx/spam", "a file"); },
    };
    for (const auto& break_it : breaks) {
        fs::remove_all(Path("mbx"));
        fs::create_directory(Path("mbx"));
        std::string reason;
        ASSERT_TRUE(MakeStoreTemplate(Path("template"), &reason));
        Gateway("");
        break_it();
        log.ExpectError("FileMessage - Catch error: -3");
        EXPECT_FALSE(File(kMessage, "spam"));
        EXPECT_FALSE(fs::is_directory(Path("mbx/spam")));
        EXPECT_FALSE(fs::exists(Path("mbx/.new")));
        if (fs::exists(Path("mbx"))) {
            EXPECT_EQ(Folder("spam"), "not there");
        }
    }
}

TEST_F(FileMessageTest, WhatACrashLeftIsNoObstacle)
{
    ASSERT_TRUE(File(kMessage, "a"));
    fs::create_directory(Path("mbx/.new"));
    Write("mbx/.new/msgbody.db", "half");
    Sql("mailbox.db", "INSERT INTO mailbox VALUES ('spam', 7, 8, 9, 10, 11, 12)");
    EXPECT_TRUE(File(kMessage, "spam"));
    EXPECT_EQ(Folder("spam"), "flags 5, counters 1 1 1, next 1; 0 stat env parts 1; files 0");
    Sql("spam/msgstat.db", "INSERT INTO msgstat (uid) VALUES (1)");
    Sql("spam/msgbody.db", "INSERT INTO msgbody (uid, number, part) VALUES (1, 0, 9)");
    EXPECT_TRUE(File(kMessage, "spam"));
    EXPECT_EQ(Folder("spam"),
              "flags 5, counters 2 2 2, next 2; 0 stat env parts 1; 1 stat env parts 1; files 0 1");
}

TEST_F(FileMessageTest, ProcessesFileAtOnceWithoutLosingAny)
{
    Write("in.msg", kMessage);
    const auto file_ten = [&] {
        int failed = 0;
        for (int i = 0; i < 10; ++i)
            failed += FileMessage(Path("mbx"), Path("in.msg"), "a/b") ? 0 : 1;
        return failed;
    };
    const pid_t children[] = {InBackground(file_ten), InBackground(file_ten),
                              InBackground(file_ten)};
    for (const pid_t child : children)
        EXPECT_EQ(StatusOf(child), 0);
    EXPECT_EQ(Folder("a/b").substr(0, 40), "flags 5, counters 30 30 30, next 30; 0 s");
    for (int uid = 0; uid < 30; ++uid)
        EXPECT_TRUE(fs::exists(Path("mbx/a/b/" + std::to_string(uid)))) << uid;
}

}  // namespace
}  // namespace dl::testing
