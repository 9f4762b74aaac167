// What the dispatcher does with a message: its log lines in order, what goes out, what stays.

#include "dispatch/dispatcher.h"

#include <filesystem>
#include <iterator>
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
constexpr char kAnnaMail[] = "anna@example.com";
constexpr char kHash[] = "anna@example.com:hash";
constexpr char kTrader[] = "trader@example.net";
constexpr char kRequest[] = "garden-request@lists.example.org";
constexpr char kBoardRequest[] = "board-request@lists.example.org";
constexpr char kClubRequest[] = "club-request@lists.example.org";

// A message; what comes of it stands in tests/data/dialogues.txt under its title.
struct Dialogue {
    const char* title;
    std::string sender;
    std::string recipients;  // separated by blanks
    std::string text = kPosting;
    std::string pending = "";  // content of 0000ABCD.cnf in the folder of the request's list
};

std::vector<std::string> Words(const std::string& text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

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
        {"open list", kPaul, "garden@lists.example.org"},
        {"open list, null sender", "<>", "club@lists.example.org"},
        {"open list, blocked member in other letters", "Trader@Example.net",
         "garden@lists.example.org"},
        {"no immediate member", kPaul, "quiet@lists.example.org"},
        {"closed list, member in other letters", "ANNA@example.com", "board@lists.example.org"},
        {"owner alias", "<>", "garden-owner@lists.example.org"},
        {"owner alias in other letters", kPaul, "Garden-OWNER@lists.example.org"},
        {"no list", kPaul, "nobody@lists.example.org"},
        {"no list, null sender", "<>", "nobody@lists.example.org"},
        {"a longer suffix", kPaul, "garden-owners@lists.example.org"},
        {"no address", kPaul, "garden"},
        {"null recipient", kPaul, "<>"},
        {"one list twice, another channel, any letters of the channel, two lists", kAnnaMail,
         "club@lists.example.org CLUB@lists.example.org garden@lists.example.org|dlout "
         "board@lists.example.org|DL board@lists.example.org|"},
    };
    for (const char* handling : {"discard", "bounce", "forward", "both"}) {
        const std::string list = std::string("on") + handling + kAt;
        all.push_back({"refused, no member", kPaul, list});
        all.push_back({"refused, blocked member", kTrader, list});
    }
    return all;
}

std::vector<Dialogue> RequestsAndReplies()
{
    return {
        {"subscribe", kPaul, kRequest, Body("subscribe")},
        {"subscribe digest", kPaul, kRequest, Body("Subscribe Digest")},
        {"subscribe, member already", "DORA@example.com", kRequest, Body("subscribe")},
        {"subscribe, the owner decides", kPaul, kClubRequest, Body("subscribe")},
        {"subscribe, null sender", "<>", kRequest, Body("subscribe")},
        {"unsubscribe", kAnnaMail, kRequest, Body("unsubscribe")},
        {"unsubscribe, no member", kPaul, kRequest, Body("unsubscribe")},
        {"a blank body counts as unsubscribe", kPaul, kRequest, Body("")},
        {"archive registration", kAnnaMail, kBoardRequest, Body("archive registration (0000ABCD)"),
         kHash},
        {"archive registration without a file", kAnnaMail, kBoardRequest,
         Body("archive registration (0000ABCD)")},
        {"archive registration, open list", kAnnaMail, kRequest,
         Body("archive registration (0000ABCD)"), kHash},
        {"archive registration, no member", kPaul, kBoardRequest,
         Body("archive registration (0000ABCD)"), "paul@example.org:hash"},
        {"unknown command", kPaul, kRequest, Body("Hello\nsubscribe")},
        {"subscription confirmed", kPaul, kRequest, Reply("subscription", "0000abcd"),
         "subscribe garden@lists.example.org paul@example.org"},
        {"digest subscription confirmed", kPaul, kRequest, Reply("subscription"),
         "subscribe digest garden@lists.example.org paul@example.org"},
        {"subscription of a member confirmed", kAnnaMail, kRequest, Reply("subscription"),
         "subscribe garden@lists.example.org anna@example.com"},
        {"subscription confirmed, the owner decides by now", kPaul, kClubRequest,
         Reply("subscription"), "subscribe club@lists.example.org paul@example.org"},
        {"unsubscription confirmed", kTrader, kRequest, Reply("unsubscription"),
         "unsubscribe garden@lists.example.org trader@example.net"},
        {"archive registration confirmed", kAnnaMail, kBoardRequest,
         Reply("archive authentication"), kHash},
        {"a reply that confirms nothing is a command", kPaul, kRequest,
         Reply("subscription", "0000ABCE"), "subscribe garden@lists.example.org paul@example.org"},
        {"confirmed, and posted with the same message", kPaul,
         "board-request@lists.example.org board@lists.example.org", Reply("subscription"),
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
            const std::vector<std::string> recipients = Words(it.recipients);
            const std::string list = SplitAlias(recipients[0], kRequestSuffix).List();
            const bool request = recipients[0].find("-request@") != std::string::npos;
            all += (all.empty() ? "" : "\n") +
                   Account(std::string(it.title) + ": " + it.sender + " to " + recipients[0],
                           request ? list : kGarden, [&, this] {
                               Start();
                               if (!it.pending.empty())
                                   WritePending("0000ABCD", it.pending + "\r\n", list);
                               Submit(it.sender, recipients, it.text);
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
