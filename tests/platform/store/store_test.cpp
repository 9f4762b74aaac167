// Records, masks, order, locks and damage of the message store.

#include "platform/store/store.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

#include "tests/support/child.h"
#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

class StoreTest : public Fixture
{
 protected:
    StoreTest()
    {
        std::filesystem::create_directory(Path("mbx"));
        std::string reason;
        EXPECT_TRUE(MakeStoreTemplate(Path("mbx/spam"), &reason)) << reason;
    }
    diamondBase session;
};

std::string Text(const mbxstat& stat)
{
    std::string text;
    for (const std::int64_t field :
         {stat.flags, stat.messages, stat.recent, stat.unseen, stat.next_uid, stat.created})
        text += std::to_string(field) + " ";
    return text;
}

TEST_F(StoreTest, TheTemplateIsEightFilesAndStaysWhatItIs)
{
    for (const char* name : kStoreFiles)
        EXPECT_TRUE(std::filesystem::exists(Path("mbx/spam/") + name)) << name;
    {
        msgstat stats(session, Path("mbx/spam"));
        EXPECT_EQ(stats.AddMsgStat(4, {}), kStoreDone);
    }
    std::string reason;
    EXPECT_TRUE(MakeStoreTemplate(Path("mbx/spam"), &reason));
    msgstat stats(session, Path("mbx/spam"));
    std::int64_t uid = -1;
    EXPECT_EQ(stats.GetFirstUid(&uid), kStoreDone);
    EXPECT_EQ(uid, 4);
    Write("file", "");
    EXPECT_FALSE(MakeStoreTemplate(Path("file/x"), &reason));
    EXPECT_NE(reason.find("file/x"), std::string::npos);
}

TEST_F(StoreTest, StatisticsAreUpdatedByMask)
{
    mailbox relation(session, Path("mbx"));
    mbxstat stat{1, 2, 3, 4, 5, 6};
    EXPECT_EQ(relation.UpdateMbxStat("spam", stat, mbxstat::kAll), kStoreNotThere);
    ASSERT_EQ(relation.AddMbx("spam", stat), kStoreDone);
    ASSERT_EQ(relation.AddMbx("spam/it's", {}), kStoreDone);
    const std::pair<int, const char*> rows[] = {{0, "1 2 3 4 5 6 "},
                                                {0x1, "90 2 3 4 5 6 "},
                                                {0xe, "90 91 92 93 5 6 "},
                                                {0x10, "90 91 92 93 94 6 "}};
    for (const auto& [mask, want] : rows) {
        EXPECT_EQ(relation.UpdateMbxStat("spam", {90, 91, 92, 93, 94, 95}, mask), kStoreDone);
        EXPECT_EQ(relation.GetMbxStat("spam", &stat), kStoreDone);
        EXPECT_EQ(Text(stat), want);
    }
    EXPECT_EQ(relation.GetMbxStat("spam/it's", &stat), kStoreDone);
    EXPECT_EQ(Text(stat), "0 0 0 0 0 0 ");
    EXPECT_EQ(relation.RemoveMbx("spam"), kStoreDone);
    EXPECT_EQ(relation.GetMbxStat("spam", &stat), kStoreNotThere);
}

TEST_F(StoreTest, MessagesComeBackInOrder)
{
    msgstat stats(session, Path("mbx/spam"));
    std::int64_t uid = -1;
    EXPECT_EQ(stats.GetFirstUid(&uid), kStoreNotThere);
    msgstat_record record{9, 11, 34, 12, 33, 20, 5, 30, true, 5'000'000'000, 77, 0, 0};
    for (const std::int64_t add : {7, 0, 3})
        ASSERT_EQ(stats.AddMsgStat(add, record), kStoreDone);
    std::string order;
    for (int found = stats.GetFirstUid(&uid); found == kStoreDone;
         found = stats.GetNextUid(uid, &uid))
        order += std::to_string(uid) + " ";
    EXPECT_EQ(order, "0 3 7 ");
    msgstat_record read;
    ASSERT_EQ(stats.GetMsgStat(3, &read), kStoreDone);
    EXPECT_EQ(read.size, 5'000'000'000);
    EXPECT_EQ(read.header, 77);
    EXPECT_EQ(stats.RemoveMsgStat(3), kStoreDone);
    EXPECT_EQ(stats.RemoveMsgStat(3), kStoreDone);
    EXPECT_EQ(stats.GetMsgStat(3, &read), kStoreNotThere);
}

TEST_F(StoreTest, BodiesTakeTheirInnerEnvelopesAlong)
{
    msgenv envelopes(session, Path("mbx/spam"));
    msgbody bodies(session, Path("mbx/spam"));
    const std::string message =
        "Subject: outer\r\nFrom: Anna <anna>, b@c.d\r\nMime-Version: 1.0\r\n"
        "Content-Type: multipart/mixed; boundary=x\r\n\r\n"
        "--x\r\n\r\none\r\n--x\r\nContent-Type: message/rfc822\r\n\r\n"
        "Subject: inner\r\n\r\ntwo\r\n--x--\r\n";
    const std::size_t end = message.find("\r\n\r\n") + 2;
    mail_envelope envelope;
    mail_body body;
    ASSERT_TRUE(rfc822_parse_msg_full(&envelope, &body, message.substr(0, end),
                                      mail_string{std::string_view(message).substr(end)},
                                      ".NO-HOST."));
    EXPECT_EQ(envelope.from, "Anna <anna@.NO-HOST.>, b@c.d");
    ASSERT_EQ(body.parts.size(), 2U);
    EXPECT_EQ(message.substr(static_cast<std::size_t>(body.parts[0].offset),
                             static_cast<std::size_t>(body.parts[0].size)),
              "one");
    ASSERT_EQ(envelopes.AddMsgEnv({5, 0}, envelope), kStoreDone);
    ASSERT_EQ(bodies.AddMsgBody(&envelopes, {5, 0}, {5, 0}, body), kStoreDone);
    ASSERT_EQ(bodies.AddMsgBody(&envelopes, {6, 0}, {6, 0}, body), kStoreDone);
    EXPECT_EQ(bodies.CountParts({5, 0}), 4);
    mail_envelope read;
    ASSERT_EQ(envelopes.GetMsgEnv({5, 1}, &read), kStoreDone);
    EXPECT_EQ(read.subject, "inner");
    ASSERT_EQ(bodies.RemoveMsgBody(&envelopes, {5, 0}), kStoreDone);
    EXPECT_EQ(bodies.CountParts({5, 0}), 0);
    EXPECT_EQ(bodies.CountParts({6, 0}), 4);
    EXPECT_EQ(envelopes.GetMsgEnv({5, 1}, &read), kStoreNotThere);
    EXPECT_EQ(envelopes.GetMsgEnv({5, 0}, &read), kStoreDone);
    EXPECT_EQ(envelopes.GetMsgEnv({6, 1}, &read), kStoreDone);
}

TEST_F(StoreTest, HostileStructures)
{
    std::string nested = "Content-Type: multipart/mixed; boundary=x\r\n";
    for (int i = 0; i < 1000; ++i)
        nested += "\r\n--x\r\nContent-Type: message/rfc822\r\n\r\nSubject: s\r\n";
    std::string delimiters = "\r\n";
    for (int i = 0; i < 100'000; ++i)
        delimiters += "\r\n--x";
    const struct {
        const char* name;
        std::string header, body;
        bool read;
    } rows[] = {
        {"nothing", "", "", false},
        {"header only", "A: b\r\n", "", true},
        {"messages within messages", nested, "", true},
        {"delimiters", "A: b\r\n", delimiters, false},
        {"NUL bytes", std::string("A: \0b\r\n", 7), std::string("\r\n\0", 3), true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        mail_envelope envelope;
        mail_body body;
        EXPECT_EQ(rfc822_parse_msg_full(&envelope, &body, row.header, mail_string{row.body}, "h"),
                  row.read);
        if (row.read) {
            msgenv envelopes(session, Path("mbx/spam"));
            msgbody bodies(session, Path("mbx/spam"));
            EXPECT_EQ(bodies.AddMsgBody(&envelopes, {1, 0}, {1, 0}, body), kStoreDone);
        }
    }
}

TEST_F(StoreTest, WhatIsNotThereOrDamagedIsAFailure)
{
    mailbox missing(session, Path("nowhere"));
    EXPECT_FALSE(missing.IsOpen());
    mbxstat stat;
    EXPECT_EQ(missing.GetMbxStat("spam", &stat), kStoreFailed);
    EXPECT_EQ(missing.lock(), kStoreFailed);
    msgstat gone(session, Path("mbx"));
    EXPECT_EQ(gone.AddMsgStat(1, {}), kStoreFailed);
    EXPECT_FALSE(std::filesystem::exists(Path("mbx/msgstat.db")));
    Write("mbx/spam/msgstat.db", std::string(8192, 'x'));
    msgstat damaged(session, Path("mbx/spam"));
    EXPECT_EQ(damaged.AddMsgStat(1, {}), kStoreFailed);
    Write("mbx/spam/msgenv.db", "");
    msgenv empty(session, Path("mbx/spam"));
    EXPECT_EQ(empty.AddMsgEnv({1, 0}, {}), kStoreFailed) << "without its tables";
}

TEST_F(StoreTest, AFileOfANewerProgramIsRefusedAndLeftAlone)
{
    const std::string path = Path("mbx/spam/msgstat.db");
    ASSERT_EQ(std::system(("sqlite3 '" + path + "' 'PRAGMA user_version=9'").c_str()), 0);
    const std::string before = ReadFile(path);
    log.ExpectError(path + " was written by a newer version of this program (format 9");
    msgstat stats(session, Path("mbx/spam"));
    EXPECT_EQ(stats.AddMsgStat(4, {}), kStoreFailed);
    EXPECT_EQ(ReadFile(path), before);
}

TEST_F(StoreTest, TheLockExcludesOtherProcessesAndEndsWithThem)
{
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = InBackground([&] {
        diamondBase own;
        mailbox relation(own, Path("mbx"));
        const bool locked = relation.lock() == kStoreDone;
        if (write(ready[1], locked ? "y" : "n", 1) != 1)
            return 1;
        usleep(300'000);
        Write("child-was-here", "");
        _exit(0);  // without unlocking
    });
    char answer = 'n';
    ASSERT_EQ(read(ready[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    mailbox relation(session, Path("mbx"));
    EXPECT_EQ(relation.lock(), kStoreDone);
    EXPECT_TRUE(std::filesystem::exists(Path("child-was-here")));
    relation.unlock();
    EXPECT_EQ(StatusOf(child), 0);
    close(ready[0]);
    close(ready[1]);
}

}  // namespace
}  // namespace dl::testing
