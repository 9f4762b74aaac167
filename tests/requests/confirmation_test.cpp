// Confirmation requests: pending files, the replies that match them and those that do not, expiry.

#include "requests/confirmations.h"

#include <sys/stat.h>

#include <functional>

#include "lists/dllist.h"
#include "platform/archive/archive.h"
#include "tests/support/site.h"

namespace dl::testing
{
namespace
{

constexpr char kPaul[] = "paul@example.org";
constexpr char kFile[] = "0000ABCD.cnf";
constexpr char kSubject[] = "Subject: Re: subscription confirmation request (0000ABCD)\n";
constexpr char kLine[] = "subscribe garden@lists.example.org paul@example.org\r\n";

std::string Subject(const std::string& kind)
{
    return "Subject: Re: " + kind + " confirmation request (0000ABCD)\n";
}

// "subscribe", "subscribe digest", "unsubscribe", "archive"; "no".
std::string Say(const ConfirmationReply& reply)
{
    if (!reply.confirmed)
        return "no";
    return reply.kind.archive ? "archive"
           : !reply.kind.subscribe
               ? "unsubscribe"
               : std::string("subscribe") + (reply.kind.digest ? " digest" : "");
}

}  // namespace

class Confirmation : public Site
{
 protected:
    Confirmation()
    {
        AddUsualLists();
        Start();
    }
    [[nodiscard]] std::string File() const
    {
        return Path(std::string("data/garden@lists.example.org/") + kFile);
    }
    std::string Reply(const std::string& header = kSubject, const std::string& sender = kPaul,
                      const std::string& body = "OK\n", const std::string& to = kGardenRequest)
    {
        Submit(sender, {to}, header + "\n" + body);
        const Incoming message = Take();
        const ConfirmationReply confirmed = ProcessConfirmationReply(message, sender, to);
        EXPECT_TRUE(RemoveMQChannel(message.channel));
        if (confirmed.confirmed)
            confirmed.pending.End();
        return Say(confirmed);
    }
};

TEST_F(Confirmation, ReplyThatFitsItsFile)
{
    struct Row {
        std::string line, header = kSubject, sender = kPaul;
    };
    const Row rows[] = {
        {kLine},
        {"SUBSCRIBE Garden@Lists.example.org Paul@example.ORG\r\n",
         "SUBJECT: RE: SUBSCRIPTION CONFIRMATION REQUEST (0000ABCD)\n", "PAUL@example.org"},
        // A subject that was folded later on.
        {kLine, "Subject: Re: subscription confirmation request (0000ABCD)\n [list]\nFrom: x\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.header);
        WritePending("0000ABCD", row.line);
        WritePending("0000ABCE", "another's");
        EXPECT_EQ(Reply(row.header, row.sender), "subscribe");
        EXPECT_EQ(Pending(), std::vector<std::string>{"0000ABCE.cnf: another's"});
        EXPECT_EQ(Reply(row.header, row.sender), "no") << "once is enough";
    }
    EXPECT_EQ(TempFiles(), 0);
}

// Its reply may come again, after a crash, until the change and its answers are committed.
TEST_F(Confirmation, AChangeThatHasBegunStaysOpenUntilItsEnd)
{
    const auto reply = [this] {
        Submit(kPaul, {kGardenRequest}, kSubject + std::string("\nOK\n"));
        const Incoming message = Take();
        ConfirmationReply confirmed = ProcessConfirmationReply(message, kPaul, kGardenRequest);
        EXPECT_TRUE(RemoveMQChannel(message.channel));
        return confirmed;
    };
    WritePending("0000ABCD", kLine);
    ConfirmationReply first = reply();
    ASSERT_TRUE(first.confirmed);
    EXPECT_FALSE(first.pending.begun);
    EXPECT_TRUE(first.pending.Begin());
    EXPECT_TRUE(first.pending.Begin()) << "noted once";
    EXPECT_EQ(ReadFile(File()), std::string(kLine) + "begun\r\n");
    // What a power loss may leave of the second line.
    for (const std::string& second :
         {std::string("begun\r\n"), std::string("beg"), std::string(7, '\0')}) {
        WritePending("0000ABCD", kLine + second);
        const ConfirmationReply again = reply();
        EXPECT_TRUE(again.confirmed && again.pending.begun) << second;
        EXPECT_EQ(Pending().size(), 1U);
    }
    first.pending.End();
    EXPECT_TRUE(Pending().empty());
    EXPECT_FALSE(reply().confirmed);
}

TEST_F(Confirmation, NothingHappensToAnotherFile)
{
    const std::string outside = Write("outside.cnf", kLine);
    const auto file = [this](const std::string& bytes) {
        return [this, bytes] { WritePending("0000ABCD", bytes); };
    };
    const struct {
        const char* name;
        std::function<void()> make;
    } files_of[] = {
        {"a link to a file that fits", [&] { std::filesystem::create_symlink(outside, File()); }},
        {"a folder", [this] { std::filesystem::create_directory(File()); }},
        {"a pipe", [this] { EXPECT_EQ(mkfifo(File().c_str(), 0600), 0); }},
        {"empty", file("")},
        {"a second line", file(std::string(kLine) + "\r\n")},
        {"no line end", file("subscribe garden@lists.example.org paul@example.org")},
        {"LF alone", file("subscribe garden@lists.example.org paul@example.org\n")},
        {"more on the line", file("subscribe garden@lists.example.org paul@example.org x\r\n")},
        {"another list", file("subscribe board@lists.example.org paul@example.org\r\n")},
        {"another sender", file("subscribe garden@lists.example.org anna@example.com\r\n")},
        {"another kind", file("unsubscribe garden@lists.example.org paul@example.org\r\n")},
        {"no file", [] {}},
    };
    const std::vector<std::string> members = Members(kGarden);
    const auto expect_untouched = [&](const auto& reply) {
        struct stat before = {};
        const int there = lstat(File().c_str(), &before);
        EXPECT_EQ(reply(), "no");
        struct stat after = {};
        EXPECT_EQ(lstat(File().c_str(), &after), there);
        EXPECT_EQ(after.st_ino, before.st_ino);
        EXPECT_EQ(after.st_size, before.st_size);
        std::filesystem::remove(File());
    };
    for (const auto& row : files_of) {
        SCOPED_TRACE(row.name);
        row.make();
        expect_untouched([&] { return Reply(); });
    }
    for (const auto& row : ReadTable("tables/requests.txt", "replies that do not fit")) {
        SCOPED_TRACE(row.at(0));
        const bool archive = row.at(1) == Subject("archive authentication");
        WritePending("0000ABCD", archive ? "anna@example.com:hash\r\n" : kLine);
        expect_untouched([&] { return Reply(row.at(1), row.at(2), row.at(4), row.at(3)); });
    }
    EXPECT_EQ(ReadFile(outside), kLine);
    EXPECT_EQ(Members(kGarden), members);
    EXPECT_EQ(TempFiles(), 0);
}

TEST_F(Confirmation, ArchiveRegistrationGoesToTheArchive)
{
    const std::string users = Path("data/garden@lists.example.org/archive/htpasswd");
    WritePending("0000ABCD", "Paul@example.org:secret\r\n");
    EXPECT_EQ(Reply(Subject("archive authentication")), "archive");
    EXPECT_EQ(ReadFile(users), "Paul@example.org:secret\n");
    EXPECT_TRUE(Pending().empty());
    EXPECT_EQ(Log(), "");
    // What the archive cannot take still counts.
    WritePending("0000ABCD", "for paul@example.org without a hash\r\n");
    EXPECT_EQ(Reply(Subject("archive authentication")), "archive");
    EXPECT_EQ(Log(), "6 no line of a password file for list garden@lists.example.org\n");
    EXPECT_EQ(ReadFile(users), "Paul@example.org:secret\n");
    EXPECT_TRUE(Pending().empty());
    // A stranger who asks for membership writes no login by answering as for an archive.
    for (const char* line : {"subscribe", "subscribe digest", "unsubscribe", "SUBSCRIBE"}) {
        WritePending("0000ABCD",
                     line + std::string(" garden@lists.example.org x:y@example.org\r\n"));
        EXPECT_EQ(Reply(Subject("archive authentication"), "x:y@example.org"), "no") << line;
        EXPECT_EQ(ReadFile(users), "Paul@example.org:secret\n");
    }
}

TEST_F(Confirmation, FileThatCannotBeRemovedIsLogged)
{
    WritePending("0000ABCD", kLine);
    files.Watch({kFile});
    files.FailNth(FileCall::kRemove, 1);
    log.ExpectError("Unable to remove file: " + File());
    EXPECT_EQ(Reply(), "subscribe");
    EXPECT_EQ(Pending().size(), 1U);
}

TEST_F(Confirmation, RequestDrawsIdentifiersUntilOneIsFree)
{
    WritePending("593A9568", "taken\r\n");  // what the clock's second gives
    clock.runs = true;
    Submit(kPaul, {kGardenRequest}, "subscribe digest\n");
    EXPECT_EQ(SendConfirmationRequest(Take(), kGardenRequest, "dlout",
                                      {.subscribe = true, .digest = true}),
              0);
    EXPECT_EQ(clock.now, 1'100'000'001);
    srand(1'100'000'001);
    char id[16];
    std::snprintf(id, sizeof id, "%08X", static_cast<unsigned>(rand()));
    std::vector<std::string> want = {
        "593A9568.cnf: taken\r\n",
        id + std::string(".cnf: subscribe digest garden@lists.example.org paul@example.org\r\n")};
    std::sort(want.begin(), want.end());
    EXPECT_EQ(Pending(), want);
    EXPECT_EQ(On().at(0).Header("Subject"),
              "subscription confirmation request (" + std::string(id) + ")");
}

TEST_F(Confirmation, RequestThatCannotBeKeptIsNotSent)
{
    const std::string none = "-request@lists.example.org";
    const struct {
        const char* name;
        std::string to, body;
        ConfirmationKind kind = {.subscribe = true};
    } rows[] = {
        {"no folder of the list", kGardenRequest, "subscribe\n"},
        {"no address", none, "subscribe\n"},
        {"no identifier", kGardenRequest, "archive registration\n", {.archive = true}},
        {"no file", kGardenRequest, "archive registration (0000ABCD)\n", {.archive = true}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Start();
        if (&row == rows)
            std::filesystem::remove_all(Path("data/garden@lists.example.org"));
        Submit(kPaul, {row.to}, "Subject: x\n\n" + row.body);
        EXPECT_EQ(SendConfirmationRequest(Take(), row.to, "dlout", row.kind), -1);
        EXPECT_EQ(queue->Calls() + Log(), "");
        EXPECT_TRUE(&row == rows || Pending().empty());
    }
}

TEST_F(Confirmation, ExpiresAfterTheConfiguredDays)
{
    const std::string configuration = ReadFile(Path("conf/qvms.conf"));
    const std::pair<const char*, int> rows[] = {{"", 3},     {"0", 3}, {"-5", 3},
                                                {"soon", 3}, {"1", 1}, {"40000", 40000}};
    for (const auto& [setting, expires] : rows) {
        SCOPED_TRACE(setting);
        Write("conf/qvms.conf",
              configuration + (*setting ? "CNFTimeOut = " : "; ") + setting + "\n");
        for (const char* name : {"0000ABCD.cnf", "0000ABCD.cnf.bak", "note.txt"})
            Write(std::string("data/garden@lists.example.org/") + name, kLine);
        std::filesystem::create_symlink("/etc/hostname",
                                        Path("data/board@lists.example.org/1.cnf"));
        struct stat status = {};
        ASSERT_EQ(lstat(Path("data/board@lists.example.org/1.cnf").c_str(), &status), 0);
        log.Clear();
        // The files may be a second older than the link.
        clock.now = status.st_ctime + expires * 86400L - 2;
        ExpireConfirmations();
        EXPECT_EQ(Log(), "");
        ASSERT_EQ(lstat(File().c_str(), &status), 0);
        clock.now = status.st_ctime + expires * 86400L;
        ExpireConfirmations();
        EXPECT_EQ(lstat(File().c_str(), &status), 0) << "exactly as old as that";
        log.Clear();
        clock.now += 1;
        ExpireConfirmations();
        EXPECT_NE(lstat(File().c_str(), &status), 0);
        clock.now += 3;
        ExpireConfirmations();
        EXPECT_EQ(Pending(), std::vector<std::string>{});
        EXPECT_TRUE(std::filesystem::exists(Path("data/garden@lists.example.org/note.txt")));
        const std::string days = std::to_string(expires);
        EXPECT_TRUE(log.Has(5, File() + " is expired after " + days + " day(s)")) << Log();
        EXPECT_TRUE(log.Has(5, File() + ".bak is expired after " + days + " day(s)"));
        EXPECT_TRUE(log.Has(
            5, Path("data/board@lists.example.org/1.cnf is expired after ") + days + " day(s)"));
        ASSERT_EQ(log.Lines().size(), 6U);
        EXPECT_EQ(log.Lines().back().text, "This file is removed");
    }
    EXPECT_TRUE(std::filesystem::exists("/etc/hostname"));
}

TEST_F(Confirmation, SweepEndsAtAListWithoutFolder)
{
    for (const char* list : {kGarden, kClub})
        WritePending("0000ABCD", kLine, list);
    std::filesystem::remove_all(Path("data/board@lists.example.org"));
    clock.now = std::time(nullptr) + 10 * 86400;
    ExpireConfirmations();
    EXPECT_TRUE(Pending(kGarden).empty());
    EXPECT_EQ(Pending(kClub).size(), 1U);
    std::filesystem::create_directory(Path("data/board@lists.example.org"));
    files.Watch({".cnf"});
    files.FailNth(FileCall::kRemove, 1);
    log.ExpectError("Unable to remove file: ");
    ExpireConfirmations();
    EXPECT_EQ(Pending(kClub).size(), 1U);
    ExpireConfirmations();
    EXPECT_TRUE(Pending(kClub).empty());
}

}  // namespace dl::testing
