// The intake over real sockets into a real queue.

#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include "tests/tools/lmtp_fixture.h"

namespace dl::testing
{

using LmtpServing = LmtpFixture;
using std::chrono::milliseconds;

TEST_F(LmtpServing, AMessageIsInTheQueueWhenItIsAnswered)
{
    StartServer();
    std::string text;
    for (int i = 0; i < 250'000; ++i)
        text += std::to_string(i) + " of a text of some megabytes\r\n";
    Client client(port);
    for (const std::string& want : {std::string("one\r\n"), text}) {
        ASSERT_EQ(client.Start("RCPT TO:<l@x.org>\r\nRCPT TO:<m@x.org>\r\n", 2), kMayCome);
        const std::string replies = client.Ask(want + ".\r\n", 2);
        const std::vector<QueueItem> items = QueueItems();
        ASSERT_FALSE(items.empty());
        char reply[64];
        std::snprintf(reply, sizeof reply, "250 2.0.0 Stored as %08lX\r\n", items.back().id);
        EXPECT_EQ(replies, std::string(reply) + reply);
        EXPECT_EQ(Message(items.back()), want);
        EXPECT_EQ(items.back().channel, "dl");
        const auto envelope = GetMQEnvelope(items.back().id).envelope;
        EXPECT_EQ(envelope->SenderAddress(), "a@b.org");
        ASSERT_EQ(envelope->recipients.count, 2);
        EXPECT_EQ(envelope->recipients.head->next->value->address, "m@x.org");
        EXPECT_EQ(envelope->recipients.head->next->value->channel, "dl");
        (void)client.Ask("RSET\r\nNOOP\r\n", 1);  // one reply is the next Start's greeting
    }
    EXPECT_TRUE(log.HasPart("from <a@b.org> for 2 recipients, 5 bytes, taken in from 127.0.0.1:"));
}

TEST_F(LmtpServing, HundredThousandRecipientsAreOneEntry)
{
    StartServer();
    std::string recipients;
    for (int i = 0; i < 100'001; ++i)
        recipients += "RCPT TO:<member-number" + std::to_string(i) + "@lists.example.org>\r\n";
    Client client(path);
    (void)client.Ask("LHLO c\r\nMAIL FROM:<>\r\n", 8);
    ASSERT_TRUE(client.Send(recipients + "DATA\r\n"));
    std::string replies = client.Replies(100'002);
    EXPECT_TRUE(replies.ends_with("452 4.5.3 Too many recipients\r\n" + std::string(kMayCome)));
    replies = client.Ask("x\r\n.\r\n", 100'000);
    EXPECT_EQ(std::count(replies.begin(), replies.end(), '\n'), 100'000);
    EXPECT_EQ(replies.find("\r\n4"), std::string::npos);
    ASSERT_EQ(QueueItems().size(), 1U);
    EXPECT_EQ(QueueItems()[0].recipients, 100'000U);
    EXPECT_EQ(QueueItems()[0].sender, "<>");
}

TEST_F(LmtpServing, AClientThatGoesAwayLeavesNothing)
{
    StartServer();
    const std::string text(200'000, 'x');
    const struct {
        const char* name;
        std::string send;  // behind the answer to DATA
        bool half;         // only the client's side is closed
    } rows[] = {
        {"at once", "", false},
        {"in the text", text, false},
        {"in the text, listening", text, true},
        {"before the dot's line end", text + "\r\n.", false},
        {"with a bare LF for an end", text + "\n.\n", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        log.Clear();
        Client client(port);
        ASSERT_EQ(client.Start(), kMayCome);
        ASSERT_TRUE(client.Send(row.send));
        if (row.half) {
            client.EndSending();
            EXPECT_EQ(client.All(), "");
        }
        client.Close();
        for (int i = 0; i < 400 && !log.HasPart("went away in the middle of a message"); ++i)
            std::this_thread::sleep_for(milliseconds(10));
        EXPECT_TRUE(log.HasPart("went away in the middle of a message"));
        Client other(path);  // the server is well, and has forgotten the message
        EXPECT_EQ(other.Ask("QUIT\r\n", 2), "220 h LMTP dlsubmit\r\n221 2.0.0 Bye\r\n");
        EXPECT_EQ(MessageFiles(), 0U);
    }
    EXPECT_TRUE(QueueItems().empty());
}

TEST_F(LmtpServing, AClientThatHasSaidAllGetsItsAnswers)
{
    StartServer();
    Client client(path);
    ASSERT_EQ(client.Start(), kMayCome);
    ASSERT_TRUE(client.Send("x\r\n.\r\nQUIT\r\nthis is not read\r\n"));
    client.EndSending();
    const std::string replies = client.All();
    EXPECT_TRUE(replies.starts_with("250 2.0.0 Stored as ")) << replies;
    EXPECT_TRUE(replies.ends_with("221 2.0.0 Bye\r\n")) << replies;
    EXPECT_EQ(QueueItems().size(), 1U);
}

TEST_F(LmtpServing, ManyClientsAtOnceLoseNothing)
{
    StartServer();
    constexpr int kClients = 60;
    constexpr int kMessages = 5;
    std::vector<Client> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back(path);
        ASSERT_EQ(clients.back().Start(), kMayCome);
    }
    std::vector<std::string> want;
    for (int m = 0; m < kMessages; ++m) {
        for (int i = 0; i < kClients; ++i) {
            want.push_back(std::to_string(i) + " " + std::to_string(m) + "\r\n");
            ASSERT_TRUE(clients[static_cast<std::size_t>(i)].Send(want.back() + ".\r\n"));
        }
        for (Client& client : clients) {
            EXPECT_TRUE(client.Replies(1).starts_with("250 "));
            (void)client.Ask("MAIL FROM:<>\r\nRCPT TO:<l@x.org>\r\nDATA\r\n", 3);
        }
    }
    std::vector<std::string> stored;
    for (const QueueItem& item : QueueItems())
        stored.push_back(Message(item));
    std::sort(stored.begin(), stored.end());
    std::sort(want.begin(), want.end());
    EXPECT_EQ(stored, want);
}

TEST_F(LmtpServing, TooManyConnectionsAreToldSo)
{
    settings.max_connections = 2;
    StartServer();
    Client first(path);
    Client second(port);
    EXPECT_EQ(first.Replies(1) + second.Replies(1),
              "220 h LMTP dlsubmit\r\n220 h LMTP dlsubmit\r\n");
    Client third(path);
    EXPECT_EQ(third.All(),
              "220 h LMTP dlsubmit\r\n421 4.3.2 Too many connections, try again later\r\n");
    first.Close();
    std::string greeting;
    for (int i = 0; i < 200; ++i) {
        Client fourth(path);
        greeting = fourth.Ask("NOOP\r\n", 2);
        if (greeting.find("421") == std::string::npos)
            break;
        std::this_thread::sleep_for(milliseconds(10));
    }
    EXPECT_EQ(greeting, "220 h LMTP dlsubmit\r\n250 2.0.0 Ok\r\n");
}

TEST_F(LmtpServing, ASilentClientIsNotWaitedFor)
{
    settings.idle_time_out = milliseconds(300);
    StartServer();
    Client idle(path);
    Client in_text(path);
    ASSERT_EQ(in_text.Start(), kMayCome);
    EXPECT_EQ(in_text.Ask("half of it\r\n", 1), "421 4.4.2 Nothing has come for too long\r\n");
    EXPECT_EQ(idle.All(), "220 h LMTP dlsubmit\r\n421 4.4.2 Nothing has come for too long\r\n");
    EXPECT_EQ(MessageFiles(), 0U);
}

TEST_F(LmtpServing, StoppingStoresWhatWasEndedAndTellsTheOthers)
{
    StartServer();
    Client idle(port);
    Client in_text(path);
    Client ended(path);
    ASSERT_EQ(idle.Replies(1), "220 h LMTP dlsubmit\r\n");
    ASSERT_EQ(in_text.Start(), kMayCome);
    ASSERT_EQ(ended.Start(), kMayCome);
    ASSERT_TRUE(in_text.Send("a half\r\n"));
    const std::string text(3'000'000, 'x');
    std::thread stopper;
    ASSERT_TRUE(ended.Send(text + "\r\n.\r\n"));
    StopServer();
    constexpr char kStopped[] = "421 4.3.2 The service is being stopped\r\n";
    EXPECT_EQ(idle.All(), kStopped);
    EXPECT_EQ(in_text.All(), kStopped);
    const std::string replies = ended.All();
    EXPECT_TRUE(replies.starts_with("250 2.0.0 Stored as ")) << replies;
    EXPECT_TRUE(replies.ends_with(kStopped)) << replies;
    ASSERT_EQ(QueueItems().size(), 1U);
    EXPECT_EQ(Message(QueueItems()[0]), text + "\r\n");
    EXPECT_FALSE(std::filesystem::exists(path)) << "its socket is removed";
}

TEST_F(LmtpServing, RefusalsAreInTheLogWithoutForgedLines)
{
    StartServer();
    Client client(path);
    std::string send = "LHLO c\r\nMAIL FROM:<a\x01\x1b@b.org>\r\n";
    for (int i = 0; i < 40; ++i)
        send += "NO\rSUCH" + std::to_string(i) + "\r\n";
    (void)client.Ask(send, 8 + 40);
    EXPECT_TRUE(log.Has(5,
                        "local was answered 501 5.1.7 Not a usable address (MAIL "
                        "FROM:<a\\x01\\x1B@b.org>\\r)"));
    EXPECT_TRUE(log.HasPart("(NO\\rSUCH18\\r)"));
    EXPECT_FALSE(log.HasPart("SUCH19")) << "one client may not fill the log";
}

TEST_F(LmtpServing, WhereToListen)
{
    StartServer();
    std::string error;
    struct stat state {
    };
    ASSERT_EQ(stat(path.c_str(), &state), 0);
    EXPECT_EQ(state.st_mode & 0777, 0600U);
    const struct {
        std::string where;
        std::string error;
    } rows[] = {
        {path, "Address already in use"},
        {"127.0.0.1:" + std::to_string(port), "Address already in use"},
        {"127.0.0.1", "neither ADDRESS:PORT nor the path of a local socket"},
        {":24", "neither ADDRESS:PORT"},
        {"127.0.0.1:", "neither ADDRESS:PORT"},
        {"127.0.0.1:65536", "neither ADDRESS:PORT"},
        {Path("no/folder"), "No such file or directory"},
        {Path(std::string(120, 'x')), "the path of a local socket may have 107 bytes"},
        {Write("file", "kept"), "Address already in use"},
    };
    for (const auto& row : rows) {
        error.clear();
        EXPECT_EQ(Listener::Open(row.where, 0600, &error), nullptr) << row.where;
        EXPECT_NE(error.find(row.error), std::string::npos) << row.where << ": " << error;
    }
    EXPECT_EQ(ReadFile(Path("file")), "kept");
    // What a process that was killed left is replaced.
    const std::string left = Path("left");
    const int dead = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, left.c_str(), left.size());
    ASSERT_EQ(bind(dead, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(dead);
    EXPECT_NE(Listener::Open(left, 0660, &error), nullptr) << error;
    EXPECT_FALSE(std::filesystem::exists(left));
    EXPECT_NE(Listener::Open("[::1]:0", 0660, &error), nullptr) << error;
}

}  // namespace dl::testing
