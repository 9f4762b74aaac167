// What the dispatcher does with a message: its log lines in order, what goes out, what stays.

#include "dispatch/dispatcher.h"

#include <filesystem>
#include <map>
#include <sstream>

#include "tests/support/fault_table.h"

namespace dl::testing
{
namespace
{

constexpr char kAt[] = "@lists.example.org";
constexpr char kPosting[] = "From: paul\nSubject: hello\n\nbody\n";
constexpr char kPaul[] = "paul@example.org";
constexpr char kTrader[] = "trader@example.net";
constexpr char kRequest[] = "garden-request@lists.example.org";
constexpr char kBoardRequest[] = "board-request@lists.example.org";
constexpr char kClubRequest[] = "club-request@lists.example.org";

// A message; what comes of it stands in tests/data/dialogues.txt under its title.
struct Dialogue {
    const char* title;
    std::string sender;
    std::vector<std::string> recipients;
    std::string text = kPosting;
    std::string pending = "";  // content of 0000ABCD.cnf in the folder of the request's list
};

std::string Body(const std::string& body)
{
    return "Subject: x\n\n" + body + "\n";
}

std::string Reply(const std::string& kind, const std::string& id = "0000ABCD")
{
    return "Subject: Re: " + kind + " confirmation request (" + id + ")\n\nOK\n";
}

std::vector<Dialogue> Postings()
{
    std::vector<Dialogue> all = {
        {"open list", kPaul, {"garden@lists.example.org"}},
        {"open list, null sender", "<>", {"club@lists.example.org"}},
        {"open list, blocked member in other letters",
         "Trader@Example.net",
         {"garden@lists.example.org"}},
        {"no immediate member", kPaul, {"quiet@lists.example.org"}},
        {"closed list, member in other letters", "ANNA@example.com", {"board@lists.example.org"}},
        {"owner alias", "<>", {"garden-owner@lists.example.org"}},
        {"owner alias in other letters", kPaul, {"Garden-OWNER@lists.example.org"}},
        {"no list", kPaul, {"nobody@lists.example.org"}},
        {"no list, null sender", "<>", {"nobody@lists.example.org"}},
        {"a longer suffix", kPaul, {"garden-owners@lists.example.org"}},
        {"no address", kPaul, {"garden"}},
        {"null recipient", kPaul, {"<>"}},
        {"one list twice, another channel, any letters of the channel, two lists",
         "anna@example.com",
         {"club@lists.example.org", "CLUB@lists.example.org", "garden@lists.example.org|dlout",
          "board@lists.example.org|DL", "board@lists.example.org|"}},
    };
    for (const char* handling : {"discard", "bounce", "forward", "both"}) {
        const std::string list = std::string("on") + handling + kAt;
        all.push_back({"refused, no member", kPaul, {list}});
        all.push_back({"refused, blocked member", kTrader, {list}});
    }
    return all;
}

std::vector<Dialogue> RequestsAndReplies()
{
    return {
        {"subscribe", kPaul, {kRequest}, Body("subscribe")},
        {"subscribe digest", kPaul, {kRequest}, Body("Subscribe Digest")},
        {"subscribe, member already", "DORA@example.com", {kRequest}, Body("subscribe")},
        {"subscribe, the owner decides", kPaul, {kClubRequest}, Body("subscribe")},
        {"subscribe, null sender", "<>", {kRequest}, Body("subscribe")},
        {"unsubscribe", "anna@example.com", {kRequest}, Body("unsubscribe")},
        {"unsubscribe, no member", kPaul, {kRequest}, Body("unsubscribe")},
        {"a blank body counts as unsubscribe", kPaul, {kRequest}, Body("")},
        {"archive registration",
         "anna@example.com",
         {kBoardRequest},
         Body("archive registration (0000ABCD)"),
         "anna@example.com:hash"},
        {"archive registration without a file",
         "anna@example.com",
         {kBoardRequest},
         Body("archive registration (0000ABCD)")},
        {"archive registration, open list",
         "anna@example.com",
         {kRequest},
         Body("archive registration (0000ABCD)"),
         "anna@example.com:hash"},
        {"archive registration, no member",
         kPaul,
         {kBoardRequest},
         Body("archive registration (0000ABCD)"),
         "paul@example.org:hash"},
        {"unknown command", kPaul, {kRequest}, Body("Hello\nsubscribe")},
        {"subscription confirmed",
         kPaul,
         {kRequest},
         Reply("subscription", "0000abcd"),
         "subscribe garden@lists.example.org paul@example.org"},
        {"digest subscription confirmed",
         kPaul,
         {kRequest},
         Reply("subscription"),
         "subscribe digest garden@lists.example.org paul@example.org"},
        {"subscription of a member confirmed",
         "anna@example.com",
         {kRequest},
         Reply("subscription"),
         "subscribe garden@lists.example.org anna@example.com"},
        {"subscription confirmed, the owner decides by now",
         kPaul,
         {kClubRequest},
         Reply("subscription"),
         "subscribe club@lists.example.org paul@example.org"},
        {"unsubscription confirmed",
         kTrader,
         {kRequest},
         Reply("unsubscription"),
         "unsubscribe garden@lists.example.org trader@example.net"},
        {"archive registration confirmed",
         "anna@example.com",
         {kBoardRequest},
         Reply("archive authentication"),
         "anna@example.com:hash"},
        {"a reply that confirms nothing is a command",
         kPaul,
         {kRequest},
         Reply("subscription", "0000ABCE"),
         "subscribe garden@lists.example.org paul@example.org"},
        {"confirmed, and posted with the same message",
         kPaul,
         {kBoardRequest, "board@lists.example.org"},
         Reply("subscription"),
         "subscribe board@lists.example.org paul@example.org"},
    };
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

// Log lines in order, what goes out, what is pending and who is a member afterwards.
TEST_F(Dispatching, DoesWithAMessageWhatItsRecipientsAre)
{
    log.ExpectError("Received unknown message type to garden-request@lists.example.org");
    log.ExpectError("Message is bounced to the original sender");
    std::string all;
    for (const auto& dialogues : {Postings(), RequestsAndReplies()}) {
        for (const Dialogue& it : dialogues) {
            const std::string list = SplitAlias(it.recipients[0], kRequestSuffix).List();
            const bool request = it.recipients[0].find("-request@") != std::string::npos;
            all += (all.empty() ? "" : "\n") +
                   Account(std::string(it.title) + ": " + it.sender + " to " + it.recipients[0],
                           request ? list : kGarden, [&, this] {
                               Start();
                               if (!it.pending.empty())
                                   WritePending("0000ABCD", it.pending + "\r\n", list);
                               Submit(it.sender, it.recipients, it.text);
                           });
        }
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

// Between the blocked members and the mode of the list.
TEST_F(Dispatching, MarkedPostingIsScanned)
{
    struct Row {
        const char* action;
        const char* sender;
        std::vector<std::string> log;  // of the scan and behind it
        const char* out;
    };
    const std::string running = "5 Running Kestrune...";
    const std::string done = "5 Done...";
    const std::string closed = "6 strict@lists.example.org is a closed list";
    const Row rows[] = {
        {"discard",
         "paul@example.org",
         {running,
          "5 Discarded message (4190AB00) to mailing list strict@lists.example.org because it was "
          "marked as spam message by the system",
          done},
         ""},
        {"bounce,Go away",
         "paul@example.org",
         {running, "3 Bounced 4190AB01 size: ? bytes to: <paul@example.org>",
          "5 Bounced message (4190AB00) to mailing list strict@lists.example.org because it was "
          "marked as spam message by the system",
          done},
         "<> -> paul@example.org: "},
        {"ignore",
         "paul@example.org",
         {running, done, closed,
          "6 Discard message sent from non list member paul@example.org to the mailing list "
          "strict@lists.example.org"},
         ""},
        {"discard",
         "trader@example.net",
         {"6 Discard message sent from blocked list member trader@example.net to the mailing list "
          "strict@lists.example.org"},
         ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.action) + " " + row.sender);
        ForgetLists();
        AddList("strict",
                "mode: 1\nInvalidPosting: discard\nx-spamaction: " + std::string(row.action) +
                    "\nlistmember: Immediate;Blocked;trader@example.net\n");
        Pass(row.sender, "strict@lists.example.org",
             "X-Spam-Status: YES\nSubject: hello\n\nbody\n");
        std::vector<std::string> lines;
        for (const CapturedLog::Line& line : log.Lines())
            if (line.module == "DL Manager")
                lines.push_back(WithoutSizes(std::to_string(line.level) + " " + line.text));
        ASSERT_GE(lines.size(), 2U);
        lines.erase(lines.begin(), lines.begin() + 2);
        EXPECT_EQ(lines, row.log);
        EXPECT_EQ(Brief().substr(0, std::string(row.out).size()), row.out);
        EXPECT_EQ(On().size(), row.out[0] ? 1U : 0U);
    }
}

TEST_F(Dispatching, ReasonsAreToldInFull)
{
    struct Row {
        const char* sender;
        std::string recipient;
        const char* reason;
    };
    const Row rows[] = {
        {"paul@example.org", "nobody@lists.example.org",
         "\tunknown mailing list address: \"nobody@lists.example.org\"\n\n\n"},
        {"trader@example.net", std::string("onbounce") + kAt,
         "\tYou are currently blocked from sending e-mail message to the mailing list: "
         "\"onbounce@lists.example.org\"\n\n\n"},
        {"paul@example.org", std::string("onbounce") + kAt,
         "\t\nYou are not eligible for sending e-mail message to the mailing list "
         "\"onbounce@lists.example.org\"\nuntil you are registered as a valid list member.\n"
         "To subscribe, send a subscription message to: \"onbounce-request@lists.example.org\",\n"
         "and put the keyword \"subscribe\" (without the quotes) in the message body.\n"
         "Or, put the keyword \"subscribe digest\" in the message body if you prefer to receive "
         "message digest instead.\n\n\n"},
        {"paul@example.org", kGardenRequest,
         "\t\nYou have sent an unknown command to the list request address "
         "\"garden-request@lists.example.org\"\n\n"
         "To subscribe, send a subscription message to: \"garden-request@lists.example.org\",\n"
         "and put the keyword \"subscribe\" (without the quotes) in the message body.\n"
         "Or, put the keyword \"subscribe digest\" in the message body if you prefer to receive "
         "message digest instead.\n\nTo remove your subscription, put the keyword "
         "\"unsubscribe\" in the message body.\n\n\n"},
    };
    log.ExpectError("Received unknown message type to garden-request@lists.example.org");
    log.ExpectError("Message is bounced to the original sender");
    for (const Row& row : rows) {
        SCOPED_TRACE(row.recipient);
        Pass(row.sender, row.recipient);
        const Queued bounce = On().at(0);
        EXPECT_NE(bounce.text.find("reason(s):\r\n\r\n" + Crlf(row.reason) + "--KVT"),
                  std::string::npos)
            << bounce.text;
    }
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

TEST_F(Dispatching, ListThatIsNewInTheDirectoryIsFound)
{
    Start();
    Write("site.ldif", ReadFile(Path("site.ldif")) +
                           "dn: mail=late@lists.example.org,dc=lists,dc=example,dc=org\n"
                           "mail: late@lists.example.org\nobjectClass: qvlist\narchive: 0\n"
                           "listmember: Immediate;anna@example.com\n\n");
    std::filesystem::create_directories(Path("data/late@lists.example.org/digest"));
    Submit("paul@example.org", {"late@lists.example.org"}, kPosting);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Brief(), "late-owner@lists.example.org -> anna@example.com: hello\n");
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
