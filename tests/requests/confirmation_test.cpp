// Confirmation requests: pending files, the replies that match them and those that do not, expiry.

#include "requests/confirmations.h"

#include <sys/stat.h>

#include <fstream>
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
        const std::string said = Say(ProcessConfirmationReply(message, sender, to));
        EXPECT_TRUE(RemoveMQChannel(message.channel));
        return said;
    }
};

TEST_F(Confirmation, ReplyThatFitsItsFile)
{
    struct Row {
        const char* name;
        std::string line;
        std::string want;
        std::string header = kSubject;
        std::string sender = kPaul;
        std::string body = "OK\n";
    };
    const Row rows[] = {
        {"immediate", kLine, "subscribe"},
        {"digest", "subscribe digest garden@lists.example.org paul@example.org\r\n",
         "subscribe digest"},
        {"unsubscription", "unsubscribe garden@lists.example.org paul@example.org\r\n",
         "unsubscribe", Subject("unsubscription")},
        {"any letter case", "SUBSCRIBE Garden@Lists.example.org Paul@example.ORG\r\n", "subscribe",
         "SUBJECT: RE: SUBSCRIPTION CONFIRMATION REQUEST (0000ABCD)\n", "PAUL@example.org"},
        {"OK on a later line", kLine, "subscribe", kSubject, kPaul, "Hello,\n\n  ok\n"},
        {"OK before a quotation", kLine, "subscribe", kSubject, kPaul, "OK\n\n> To confirm\n"},
        {"a subject that was folded later on", kLine, "subscribe",
         "Subject: Re: subscription confirmation request (0000ABCD)\n [list]\nFrom: x\n"},
        {"other headers before", kLine, "subscribe",
         "X-Subject: no\nFrom: x\n" + Subject("subscription")},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        WritePending("0000ABCD", row.line);
        WritePending("0000ABCE", "another's");
        EXPECT_EQ(Reply(row.header, row.sender, row.body), row.want);
        EXPECT_EQ(Pending(), std::vector<std::string>{"0000ABCE.cnf: another's"});
        EXPECT_EQ(Reply(row.header, row.sender, row.body), "no") << "once is enough";
    }
    EXPECT_EQ(TempFiles(), 0);
}

TEST_F(Confirmation, NothingHappensToAnotherFile)
{
    const std::string outside = Write("outside.cnf", kLine);
    const auto file = [this](const std::string& bytes) {
        return [this, bytes] { WritePending("0000ABCD", bytes); };
    };
    struct Row {
        const char* name;
        std::function<void()> make;
        std::string header = kSubject;
        std::string sender = kPaul;
        std::string to = kGardenRequest;
        std::string body = "OK\n";
    };
    const Row rows[] = {
        {"a link to a file that fits", [&] { std::filesystem::create_symlink(outside, File()); }},
        {"a folder", [this] { std::filesystem::create_directory(File()); }},
        {"a pipe", [this] { EXPECT_EQ(mkfifo(File().c_str(), 0600), 0); }},
        {"empty", file("")},
        {"a second line", file(std::string(kLine) + "subscribe more\r\n")},
        {"a second line that is blank", file(std::string(kLine) + "\r\n")},
        {"no line end", file("subscribe garden@lists.example.org paul@example.org")},
        {"LF alone", file("subscribe garden@lists.example.org paul@example.org\n")},
        {"more on the line", file("subscribe garden@lists.example.org paul@example.org x\r\n")},
        {"another list", file("subscribe board@lists.example.org paul@example.org\r\n")},
        {"another sender", file("subscribe garden@lists.example.org anna@example.com\r\n")},
        {"the reply of somebody else", file(kLine), kSubject, "mallory@example.org"},
        {"the reply of nobody", file(kLine), kSubject, "<>"},
        {"a reply to another list", file(kLine), kSubject, kPaul,
         "board-request@lists.example.org"},
        {"a reply to no list", file(kLine), kSubject, kPaul, "-request@lists.example.org"},
        {"another kind: subscription for unsubscription", file(kLine), Subject("unsubscription")},
        {"another kind: unsubscription for subscription",
         file("unsubscribe garden@lists.example.org paul@example.org\r\n")},
        {"a digest file, and the line of another", file("subscribe digest garden@lists.example.org "
                                                        "anna@example.com\r\n")},
        {"archive: the address does not stand there", file("anna@example.com:hash\r\n"),
         Subject("archive authentication")},
        {"another identifier", file(kLine),
         "Subject: subscription confirmation request (0000ABCE)\n"},
        {"no identifier", file(kLine), "Subject: subscription confirmation request\n"},
        {"the subject in the body only", file(kLine), "From: x\n", kPaul, kGardenRequest,
         "Subject: subscription confirmation request (0000ABCD)\nOK\n"},
        {"a folded subject", file(kLine),
         "Subject: Re: subscription confirmation request\n (0000ABCD)\n"},
        {"no OK", file(kLine), kSubject, kPaul, kGardenRequest, "Okay\n> OK\n"},
        {"OK without a line end", file(kLine), kSubject, kPaul, kGardenRequest, "OK"},
        {"an empty body", file(kLine), kSubject, kPaul, kGardenRequest, ""},
        {"no file", [] {}},
    };
    const std::vector<std::string> members = Members(kGarden);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        row.make();
        struct stat before {
        };
        const int there = lstat(File().c_str(), &before);
        EXPECT_EQ(Reply(row.header, row.sender, row.body, row.to), "no");
        struct stat after {
        };
        EXPECT_EQ(lstat(File().c_str(), &after), there);
        EXPECT_EQ(after.st_ino, before.st_ino);
        EXPECT_EQ(after.st_size, before.st_size);
        std::filesystem::remove(File());
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
    EXPECT_EQ(Log(),
              "6 DL Manager: no line of a password file for list garden@lists.example.org\n");
    EXPECT_EQ(ReadFile(users), "Paul@example.org:secret\n");
    EXPECT_TRUE(Pending().empty());
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
    struct Row {
        const char* name;
        std::string to;
        ConfirmationKind kind;
        std::string body;
        bool folder;
    };
    const Row rows[] = {
        {"no folder of the list", kGardenRequest, {.subscribe = true}, "subscribe\n", false},
        {"no address", "-request@lists.example.org", {.subscribe = true}, "subscribe\n", true},
        {"a registration without an identifier",
         kGardenRequest,
         {.archive = true},
         "archive registration\n",
         true},
        {"a registration whose file is not there",
         kGardenRequest,
         {.archive = true},
         "archive registration (0000ABCD)\n",
         true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Start();
        if (!row.folder)
            std::filesystem::remove_all(Path("data/garden@lists.example.org"));
        Submit(kPaul, {row.to}, "Subject: x\n\n" + row.body);
        EXPECT_EQ(SendConfirmationRequest(Take(), row.to, "dlout", row.kind), -1);
        EXPECT_EQ(queue->Calls(), "");
        EXPECT_EQ(Log(), "");
        if (row.folder) {
            EXPECT_TRUE(Pending().empty());
        }
    }
}

TEST_F(Confirmation, ExpiresAfterTheConfiguredDays)
{
    const std::string configuration = ReadFile(Path("conf/qvms.conf"));
    struct Row {
        const char* setting;
        int days;
    };
    for (const Row& row : {Row{"", 3},
                           {"CNFTimeOut = 0\n", 3},
                           {"CNFTimeOut = -5\n", 3},
                           {"CNFTimeOut = soon\n", 3},
                           {"CNFTimeOut = 1\n", 1},
                           {"CNFTimeOut = 40000\n", 40000}}) {
        SCOPED_TRACE(row.setting);
        Write("conf/qvms.conf", configuration + row.setting);
        for (const char* name : {"0000ABCD.cnf", "0000ABCD.cnf.bak", "note.txt"})
            Write(std::string("data/garden@lists.example.org/") + name, kLine);
        std::filesystem::create_symlink("/etc/hostname",
                                        Path("data/board@lists.example.org/1.cnf"));
        struct stat status {
        };
        ASSERT_EQ(lstat(Path("data/board@lists.example.org/1.cnf").c_str(), &status), 0);
        log.Clear();
        // The files may be a second older than the link.
        clock.now = status.st_ctime + row.days * 86400L - 2;
        ExpireConfirmations();
        EXPECT_EQ(Log(), "");
        ASSERT_EQ(lstat(File().c_str(), &status), 0);
        clock.now = status.st_ctime + row.days * 86400L;
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
        const std::string days = std::to_string(row.days);
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
