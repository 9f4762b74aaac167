// What clients are told when the queue, the disk or the memory of descriptors fails: try again, for
// every recipient, and nothing is left in the queue.

#include <atomic>

#include "tests/support/failing_files.h"
#include "tests/support/failing_queue.h"
#include "tests/tools/lmtp_fixture.h"

namespace dl::testing
{
namespace
{

constexpr char kTryAgain[] = "451 4.3.0 The queue cannot take the message, try again later\r\n";
constexpr char kFull[] = "452 4.3.1 The disk is full, try again later\r\n";
const std::string kTwo = "RCPT TO:<l@x.org>\r\nRCPT TO:<m@x.org>\r\n";

std::string Twice(const std::string& text)
{
    return text + text;
}

}  // namespace

using LmtpFault = LmtpFixture;

TEST_F(LmtpFault, AQueueThatFailsIsTriedAgainLater)
{
    FailingQueue queue(Path("queue"));
    StartServer();
    const struct {
        const char* name;
        QueueCall call;
    } rows[] = {
        {"insert", QueueCall::kInsert},
        {"envelope", QueueCall::kEnvelope},
        {"close", QueueCall::kClose},
    };
    Client client(path);
    queue.FailNext(QueueCall::kCreate);
    EXPECT_EQ(client.Start(kTwo, 2), kTryAgain) << "the answer to DATA, for all of them";
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        queue.FailNext(row.call);
        ASSERT_TRUE(
            client.Ask("MAIL FROM:<a@b.org>\r\n" + kTwo + "DATA\r\n", 4).ends_with(kMayCome));
        EXPECT_EQ(client.Ask("x\r\n.\r\n", 2), Twice(kTryAgain));
        EXPECT_TRUE(QueueItems().empty());
        EXPECT_EQ(MessageFiles(), 0U);
    }
    (void)client.Ask("MAIL FROM:<a@b.org>\r\n" + kTwo + "DATA\r\n", 4);
    EXPECT_TRUE(client.Ask("x\r\n.\r\n", 2).starts_with("250 ")) << "the session goes on";
    EXPECT_EQ(QueueItems().size(), 1U);
}

TEST_F(LmtpFault, OneMessageOfAGroupThatFailsLeavesTheOthers)
{
    FailingQueue queue(Path("queue"));
    StartServer();
    std::vector<Client> clients;
    for (int i = 0; i < 10; ++i) {
        clients.emplace_back(path);
        ASSERT_EQ(clients.back().Start(), kMayCome);
    }
    queue.FailNth(QueueCall::kClose, 4);
    for (Client& client : clients)
        ASSERT_TRUE(client.Send("x\r\n.\r\n"));
    int refused = 0;
    for (Client& client : clients)
        refused += client.Replies(1) == kTryAgain ? 1 : 0;
    EXPECT_EQ(refused, 1);
    EXPECT_EQ(QueueItems().size(), 9U);
    EXPECT_EQ(MessageFiles(), 9U);
}

TEST_F(LmtpFault, AFullDiskIsToldForEachRecipientAfterTheText)
{
    FailingFiles disk;
    StartServer();
    log.ExpectError("cannot be written: the disk is full");
    Client client(path);
    const std::string text(500'000, 'x');
    const struct {
        const char* name;
        FileCall call;
        int nth;
    } rows[] = {{"at the first byte", FileCall::kWrite, 1},
                {"in the middle", FileCall::kWrite, 4},
                {"at the end", FileCall::kClose, 1}};
    (void)client.Ask("LHLO c\r\n", 7);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        (void)client.Ask("MAIL FROM:<a@b.org>\r\n" + kTwo + "DATA\r\n", 4);
        disk.FailNth(row.call, row.nth, 1000);
        EXPECT_EQ(client.Ask(text + "\r\n.\r\n", 2), Twice(kFull));
        EXPECT_TRUE(QueueItems().empty());
        EXPECT_EQ(MessageFiles(), 0U);
        disk.ForgetFaults();
    }
    (void)client.Ask("MAIL FROM:<a@b.org>\r\n" + kTwo + "DATA\r\n", 4);
    EXPECT_TRUE(client.Ask(text + "\r\n.\r\n", 2).starts_with("250 "));
}

TEST_F(LmtpFault, NoMessageIsTakenIntoTheRoomThatWhatWaitsNeeds)
{
    std::atomic<std::uint64_t> room{1'000};
    settings.limits.has_room = [&room](std::uint64_t bytes) { return bytes <= room.load(); };
    StartServer();
    Client client(path);
    (void)client.Ask("LHLO c\r\n", 7);
    EXPECT_EQ(client.Ask("MAIL FROM:<a@b.org> SIZE=1001\r\n", 1), kFull);
    room = 2'500'000;
    const std::string text(5'000'000, 'x');
    (void)client.Ask("MAIL FROM:<a@b.org> SIZE=1000\r\n" + kTwo + "DATA\r\n", 4);
    room = 1'000'000;  // what others took meanwhile
    EXPECT_EQ(client.Ask(text + "\r\n.\r\n", 2), Twice(kFull));
    EXPECT_EQ(MessageFiles(), 0U);
    (void)client.Ask("MAIL FROM:<a@b.org>\r\n" + kTwo + "DATA\r\n", 4);
    EXPECT_TRUE(client.Ask("small\r\n.\r\n", 2).starts_with("250 "));
}

TEST_F(LmtpFault, AQueueFolderThatVanishesIsNoCrash)
{
    StartServer();
    log.ExpectError("No new entry in the message queue");
    log.ExpectError("was not put into the message queue");
    Client client(path);
    ASSERT_EQ(client.Start(kTwo, 2), kMayCome);
    std::filesystem::rename(Path("queue/msg"), Path("queue/gone"));
    EXPECT_EQ(client.Ask("x\r\n.\r\n", 2), Twice(kTryAgain));
    EXPECT_EQ(client.Ask("MAIL FROM:<a@b.org>\r\n" + kTwo + "DATA\r\n", 4),
              "250 2.1.0 Ok\r\n250 2.1.5 Ok\r\n250 2.1.5 Ok\r\n" + std::string(kTryAgain));
    std::filesystem::rename(Path("queue/gone"), Path("queue/msg"));
    EXPECT_TRUE(QueueItems().empty());
    (void)client.Ask("MAIL FROM:<a@b.org>\r\n" + kTwo + "DATA\r\n", 4);
    EXPECT_TRUE(client.Ask("x\r\n.\r\n", 2).starts_with("250 "));
}

}  // namespace dl::testing
