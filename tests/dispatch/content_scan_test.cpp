// Postings with spam marks, from the queue to what becomes of them.

#include "tests/support/site.h"

namespace dl::testing
{
namespace
{

constexpr char kAt[] = "@lists.example.org";

class ContentScan : public Site
{
 protected:
    ContentScan()
    {
        Write("conf/qvmta.ini",
              "[Kestrune]\nReloadInterval = 0\n[SpamAssassin]\n"
              "Action-global = ChangeSubject,[SPAM]\n");
        const std::string member =
            "listmember: Immediate;anna@example.com\n"
            "listmember: Immediate;Blocked;trader@example.net\n";
        AddList("plain", member);
        AddList("strict",
                "x-spamaction: discard\nx-whitelist: *@friends.example\n"
                "x-ipwhitelist: 10.0.0.1-10.0.0.9\n" +
                    member);
        AddList("polite", "x-spamaction: bounce,We have seen this before.\n" + member);
        AddList("closed", "mode: 1\nInvalidPosting: discard\nx-spamaction: discard\n" + member);
        AddList("own",
                "x-kvtblaction: dropped.example,ignore\n"
                "x-kvtblaction: ignored.example,bounce,Not from there.\n" +
                    member);
    }
    // The verdict's line without its end, and to whom a report or the posting goes.
    std::string Outcome(const std::string& list, const std::string& sender,
                        const std::string& marks)
    {
        Start();
        Write("site.ldif", ReadFile(Path("site.ldif")) +
                               "dn: cn=PreProcessor,dc=example\nobjectClass: qvconfig\n"
                               "cn: PreProcessor\nx-kvtblaction: dropped.example,P,D\n"
                               "x-kvtblaction: ignored.example,P,D,DL:I\n\n");
        Submit(sender, {list + kAt}, marks + "Subject: hi\n\nbody\n");
        EXPECT_EQ(Run(), 0);
        EXPECT_TRUE(On("dl").empty());
        std::string text;
        const std::string end = " message (4190AB00) to mailing list " + list + kAt +
                                " because it was marked as spam message by the system";
        for (const CapturedLog::Line& line : log.Lines())
            if (line.text.ends_with(end) && line.level == 5)
                text += line.text.substr(0, line.text.find(' ') + 1);
        EXPECT_EQ(log.Has(5, "Running Kestrune..."), sender != "trader@example.net");
        for (const Queued& sent : On())
            text += sent.sender == "<>" ? "report to " + sent.recipients.at(0)
                                        : "delivered to " + sent.recipients.at(0);
        return text;
    }
};

TEST_F(ContentScan, Outcomes)
{
    for (const auto& row : ReadTable("tables/spam.txt", "outcomes of postings"))
        EXPECT_EQ(Outcome(row.at(1), row.at(4), row.at(2)), row.at(3)) << row.at(0);
}

TEST_F(ContentScan, OneListsVerdictIsNotTheOthers)
{
    Start();
    Submit("paul@example.org", {std::string("strict") + kAt, std::string("plain") + kAt},
           "X-Spam-Status: YES\nSubject: hi\n\nbody\n");
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Brief(),
              "plain-owner@lists.example.org -> anna@example.com, trader@example.net: hi\n");
}

// What a directory that does not answer would have said of a blacklist is asked again later; a list
// that has said it itself need not be asked.
TEST_F(ContentScan, NothingIsDiscardedForADirectoryThatDoesNotAnswer)
{
    Start();
    const std::string mark = "X-kvtbl: ignored.example/10.9.9.9\nSubject: hi\n\nbody\n";
    Submit("paul@example.org", {std::string("plain") + kAt}, mark);
    Submit("paul@example.org", {std::string("own") + kAt}, mark);
    directory.FailNext(DirectoryCall::kSearch);
    log.ExpectError("Unable to read the RBL default settings");
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(On("dl").size(), 1U);
    EXPECT_EQ(Brief(), "<> -> paul@example.org: unable to deliver mail\n");
    Write("site.ldif", ReadFile(Path("site.ldif")) +
                           "dn: cn=PreProcessor,dc=example\nobjectClass: qvconfig\n"
                           "cn: PreProcessor\nx-kvtblaction: ignored.example,P,I\n\n");
    clock.now += 1;
    EXPECT_EQ(Run(), 0);
    EXPECT_TRUE(On("dl").empty());
    EXPECT_EQ(On().back().recipients.at(0), "anna@example.com");
}

TEST_F(ContentScan, AFailedBounceKeepsThePosting)
{
    Start();
    Submit("paul@example.org", {std::string("polite") + kAt}, "X-Spam-Status: YES\n\nbody\n");
    queue->FailNext(QueueCall::kInsert);
    log.ExpectError("Breaking main loop at line: 640");
    EXPECT_EQ(Run(), 1);
    EXPECT_TRUE(On().empty());
    EXPECT_FALSE(log.HasPart("Bounced message"));
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(On().at(0).recipients.at(0), "paul@example.org");
}

}  // namespace
}  // namespace dl::testing
