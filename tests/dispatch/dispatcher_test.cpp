// What the dispatcher does with a message: its log lines in order, what goes out, what stays.

#include "dispatch/dispatcher.h"

#include <filesystem>
#include <iterator>
#include <map>
#include <sstream>

#include "dispatch/request_steps.h"
#include "tests/support/fault_table.h"
#include "tests/support/queued.h"

namespace dl::testing
{
namespace
{

constexpr char kAt[] = "@lists.example.org";
constexpr char kPosting[] = "From: paul\nSubject: hello\n\nbody\n";
constexpr char kPaul[] = "paul@example.org";
constexpr char kTrader[] = "trader@example.net";
constexpr char kRequest[] = "garden-request@lists.example.org";
constexpr char kClubRequest[] = "club-request@lists.example.org";

std::vector<std::string> Words(const std::string& text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

}  // namespace

class Dispatching : public FaultSite
{
 protected:
    Dispatching()
    {
        AddUsualLists();
        for (const std::string handling : {"discard", "bounce", "forward", "both"})
            AddList("on" + handling, "mode: 1\nInvalidPosting: " + handling +
                                         "\nlistmember: Immediate;anna@example.com\n"
                                         "listmember: Immediate;Blocked;trader@example.net\n");
        AddList("quiet", "listmember: Digest;dora@example.com\n");
    }
    // One pass over one message.
    void Pass(const std::string& sender, const std::string& recipient,
              const std::string& text = kPosting)
    {
        Start();
        Submit(sender, {recipient}, text);
        EXPECT_EQ(Run(), 0);
        EXPECT_TRUE(On("dl").empty());
        EXPECT_EQ(Unfinished(), 0);
    }
};

// In dialogues.in.txt stand sender, recipients, the content of 0000ABCD.cnf in the folder of the
// request's list, if any, and the message; in dialogues.txt, under the same titles, the log lines
// in order, what goes out, what is pending and who is a member afterwards.
TEST_F(Dispatching, DoesWithAMessageWhatItsRecipientsAre)
{
    log.ExpectError("Received unknown message type to garden-request@lists.example.org");
    log.ExpectError("Message is bounced to the original sender");
    std::string all;
    for (const DataBlock& it : ReadBlocks("dialogues.in.txt")) {
        std::istringstream lines(it.in);
        std::string sender;
        std::string to;
        std::string pending;
        std::getline(std::getline(std::getline(lines, sender), to), pending);
        const std::vector<std::string> recipients = Words(to);
        const std::string list = SplitAlias(recipients[0], kRequestSuffix).List();
        const bool request = recipients[0].find("-request@") != std::string::npos;
        all += (all.empty() ? "" : "\n") +
               Account(it.name + ": " + sender + " to " + recipients[0], request ? list : kGarden,
                       [&, this] {
                           Start();
                           if (!pending.empty())
                               WritePending("0000ABCD", pending + "\r\n", list);
                           Submit(sender, recipients, it.want);
                       });
    }
    ExpectText("dialogues.txt", all);
}

TEST_F(Dispatching, EnvelopesAreFilled)
{
    Pass(kPaul, kGarden);
    const Queued copy = On().at(0);
    EXPECT_EQ(copy.channel + "," + copy.recipient_channel + "," + std::to_string(copy.flags),
              "dlout,,0");
    EXPECT_EQ(copy.text.substr(copy.text.find("From:")),
              Crlf("From: paul\nSubject: hello\nSender: garden@lists.example.org\n\nbody\n"));
    Pass(kPaul, "nobody@lists.example.org");
    EXPECT_EQ(On().at(0).flags, 0x80);
    Pass(kPaul, "onbounce@lists.example.org");
    EXPECT_EQ(On().at(0).flags, 0);
}

TEST_F(Dispatching, ReasonsAreToldInFull)
{
    const std::pair<const char*, const char*> rows[] = {
        {kPaul, "nobody@lists.example.org"},
        {kTrader, "onbounce@lists.example.org"},
        {kPaul, "onbounce@lists.example.org"},
        {kPaul, kRequest},
    };
    log.ExpectError("Received unknown message type to garden-request@lists.example.org");
    log.ExpectError("Message is bounced to the original sender");
    std::string all;
    for (const auto& [sender, recipient] : rows) {
        Pass(sender, recipient);
        std::string text = On().at(0).text;
        std::erase(text, '\r');
        const std::size_t from = text.find("reason(s):\n");
        ASSERT_NE(from, std::string::npos) << text;
        all += text.substr(from, text.find("--KVT", from) - from);
    }
    ExpectText("reasons.txt", all);
}

TEST_F(Dispatching, NextMessageBeginsWithNoRecipientProcessed)
{
    Start();
    Submit(kAnna, {kClub}, kPosting);
    Submit(kAnna, {kClub}, kPosting);
    Submit(kAnna, {}, kPosting);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(On().size(), 2U);
    EXPECT_TRUE(On("dl").empty());
    EXPECT_TRUE(log.Has(6, "Processing message (4190AB02)"));
    EXPECT_FALSE(log.HasPart("has been processed, skip"));
}

TEST_F(Dispatching, BadMessageDoesNotHoldUpTheOthers)
{
    Start();
    {
        NewMQEntry bare;
        ASSERT_TRUE(InsertMQChannel(bare.get(), "dl", 255));
        ASSERT_TRUE(bare.Close());
    }
    Submit(kAnna, {kClub}, kPosting);
    log.ExpectError("Missing Envelope File");
    log.ExpectError("dlhold");  // the queue keeps it for the postmaster
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(On().size(), 1U);
    EXPECT_EQ(On("dlhold").size(), 1U);
    EXPECT_TRUE(On("dl").empty());
}

// Nobody is told "no such list" by a directory that did not answer; others do not wait for that.
TEST_F(Dispatching, AMessageWaitsForTheDirectoryAndTheOthersGoOn)
{
    Start();
    Submit(kPaul, {"nobody@lists.example.org", kClub}, kPosting);
    Submit(kAnna, {kClub}, kPosting);
    for (const char* line :
         {"Could not connect to Directory Server", "Unable to connect to LDAP server"})
        log.ExpectError(line);
    directory.FailNth(DirectoryCall::kConnect, 1, 1000);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(On().size(), 1U) << "none of the first message: it is handled as a whole";
    const QueueItem waiting = QueueItems("dl").at(0);
    EXPECT_EQ(waiting.problem, "the directory does not answer");
    EXPECT_EQ(waiting.attempts, 0);
    for (const int pause : {1, 2, 4, 8, 16, 32, 60, 60}) {
        EXPECT_EQ(QueueItems("dl").at(0).due, clock.now + pause);
        clock.now += pause;
        EXPECT_EQ(Run(), 0);
    }
    directory.ForgetFaults();
    clock.now += 60;
    EXPECT_EQ(Run(), 0);
    EXPECT_TRUE(On("dl").empty());
    EXPECT_EQ(Brief(),
              "club-owner@lists.example.org -> anna@example.com: hello\n"
              "<> -> paul@example.org: unable to deliver mail\n"
              "club-owner@lists.example.org -> anna@example.com: hello\n");
}

// A list whose alias names no owner: mail for the owner stops nobody, and ends in "dlhold".
TEST_F(Dispatching, WhatAListLacksHoldsUpNobody)
{
    Start();
    std::string ldif = ReadFile(Path("site.ldif"));
    const std::size_t at = ldif.find("listowner: club-boss@example.org\n");
    ASSERT_NE(at, std::string::npos);
    ldif.erase(at, ldif.find('\n', at) + 1 - at);
    Write("site.ldif", ldif);
    Submit(kPaul, {"club-owner@lists.example.org"}, kPosting);
    log.ExpectError("Owner alias club-owner@lists.example.org of mailing list");
    log.ExpectError("cannot be handled (329), next attempt in ");
    log.ExpectError("could not be handled in 5 attempts, moved from channel dl to dlhold");
    for (int i = 0; i < 6; ++i, clock.now += 60) {
        Submit(kAnna, {kClub}, kPosting);
        EXPECT_EQ(Run(), 0);
        EXPECT_EQ(On().size(), static_cast<std::size_t>(i) + 1);
    }
    EXPECT_TRUE(On("dl").empty());
    EXPECT_EQ(On("dlhold").size(), 1U);
}

// Messages that wait together are committed together, in their order; a commit that fails is tried
// message by message, and the log tells of each only what is so.
TEST_F(Dispatching, MessagesShareACommitAndFailAlone)
{
    Start();
    for (int i = 0; i < 3; ++i)
        Submit(kAnna, {kClub}, kPosting);
    queue->ClearCalls();
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(queue->Calls().substr(queue->Calls().find("commit")),
              "commit(1 remove, 1 remove, 1 remove)");
    EXPECT_EQ(On().size(), 3U);

    Start();
    for (int i = 0; i < 3; ++i)
        Submit(kAnna, {kClub}, kPosting);
    // Of all together, and then of the second alone.
    queue->FailNth(QueueCall::kCommit, 1);
    queue->ClearCalls();
    files.Watch({"club@lists.example.org/digest/4190AB01.msg"});
    files.FailNth(FileCall::kRename, 2);
    log.ExpectError("CloseMQEntry failed, message cannot be submitted to MQ.");
    log.ExpectError("Unable to give its name to");
    log.ExpectError("Breaking main loop at line: 620");
    EXPECT_EQ(Run(), 1);
    EXPECT_EQ(On().size(), 1U);
    EXPECT_EQ(On("dl").size(), 2U);
    const std::string said = Log(3);
    EXPECT_NE(said.find("Delivered 4190AB00"), std::string::npos);
    EXPECT_EQ(said.find("Delivered 4190AB01"), std::string::npos) << said;
    EXPECT_EQ(said.find("Delivered 4190AB02"), std::string::npos) << said;
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(On().size(), 3U);
    EXPECT_EQ(ReadFile(Path("data/") + kClub + "/digest/subject.txt"),
              "   1.  hello\r\n   2.  hello\r\n   3.  hello\r\n");
}

// The directory knows what the cache does not yet know.
TEST_F(Dispatching, MemberThatIsNewerThanTheCache)
{
    Start();
    std::string ldif = ReadFile(Path("site.ldif"));
    const std::string mark = "mode: 0\nAutoSubscription: NO\n";
    ldif.insert(ldif.find(mark) + mark.size(), "listmember: Digest;paul@example.org\n");
    Write("site.ldif", ldif);
    Submit(kPaul, {kClubRequest}, "Subject: x\n\nsubscribe\n");
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Brief(),
              "club-request@lists.example.org -> paul@example.org: Your subscription of "
              "club@lists.example.org\n");
    EXPECT_NE(On().at(0).text.find("has been processed successfully.\r\n"), std::string::npos);
}

TEST_F(Dispatching, DisclaimersAreInserted)
{
    AddList("legal", "listmember: Immediate;anna@example.com\ndisclaimertxtpath: " +
                         Write("disclaimer.txt", "The small print.\n") + "\n");
    const std::string list = std::string("legal") + kAt;
    Pass(kPaul, list);
    const Queued copy = On().at(0);
    EXPECT_NE(copy.text.find("body\r\n"), std::string::npos);
    EXPECT_NE(copy.text.find("The small print."), std::string::npos) << copy.text;
    EXPECT_TRUE(
        log.HasPart("Delivered 4190AB00 size: " + std::to_string(copy.text.size()) + " bytes from"))
        << "the size is that of what goes out: " << Log();
}

TEST_F(Dispatching, ManyMembersGetOneEntry)
{
    constexpr int kMembers = 20'000;
    std::string lines;
    for (int i = 0; i < kMembers; ++i)
        lines += "listmember: Immediate;m" + std::to_string(i) + "@example.org\n";
    AddList("crowd", lines);
    Pass(kPaul, "crowd@lists.example.org");
    const std::vector<std::string> to = On().at(0).recipients;
    ASSERT_EQ(to.size(), static_cast<std::size_t>(kMembers));
    EXPECT_EQ(to.front(), "m0@example.org");
    EXPECT_EQ(to.back(), "m19999@example.org");
}

// As when memory runs out while the list's address is formed: nothing is done in the name of no
// list, and the message stays for the time after a restart.
TEST_F(Dispatching, RequestOfNoListStops)
{
    for (const char* text : {"Subject: x\n\nsubscribe\n", "Subject: x\n\nunsubscribe\n"}) {
        Start();
        Submit(kPaul, {kRequest}, text);
        const Incoming message = Take();
        MessageWork work(message.channel);
        EXPECT_EQ(HandleRequest({message, "dlout", work}, "-request@lists.example.org"), 305);
        EXPECT_TRUE(On().empty());
        EXPECT_EQ(On("dl").size(), 1U);
    }
}

// Each place at which the dispatcher stops has a number of its own, so that the log tells it.
TEST(StopPlaces, AreDistinct)
{
    std::map<std::string, std::string> places;
    for (const auto& file :
         std::filesystem::directory_iterator(std::string(DL_SOURCE) + "/src/dispatch")) {
        std::istringstream text(ReadFile(file.path()));
        for (std::string line; std::getline(text, line);) {
            char name[64];
            char place[16];
            if (std::sscanf(line.c_str(), "constexpr long %63[A-Za-z] = %15[0-9];", name, place) ==
                    2 &&
                std::string(place) != "0") {
                EXPECT_TRUE(places.emplace(place, name).second) << name << " and " << places[place];
            }
        }
    }
    for (const char* place : {"329", "484", "529", "558", "598", "605", "611"})
        EXPECT_EQ(places.count(place), 1U) << place;
}

}  // namespace dl::testing
