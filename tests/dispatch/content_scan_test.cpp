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
    // What is logged of the scan, the verdict's line without its beginning, and what is sent.
    std::string Outcome(const std::string& list, const std::string& sender,
                        const std::string& marks)
    {
        Start();
        Write("site.ldif", ReadFile(Path("site.ldif")) +
                               "dn: cn=PreProcessor,dc=example\nobjectClass: qvconfig\n"
                               "cn: PreProcessor\nx-kvtblaction: dropped.example,P,D\n"
                               "x-kvtblaction: ignored.example,P,D,DL:I\n\n");
        const unsigned long id = Submit(sender, {list + kAt}, marks + "Subject: hi\n\nbody\n");
        EXPECT_EQ(Run(), 0);
        EXPECT_TRUE(On("dl").empty());
        std::string text;
        bool scanning = false;
        char hex[20];
        std::snprintf(hex, sizeof hex, "(%lX)", id);
        for (const CapturedLog::Line& line : log.Lines()) {
            if (line.module != "DL Manager" || line.level == 3)
                continue;
            const bool begins = line.text == "Running Kestrune...";
            if (begins)
                text += "scan: ";
            else if (scanning && line.text != "Done...")
                text += line.text.substr(0, line.text.find(' ')) +
                        (line.text.find(std::string(hex) + " to mailing list " + list + kAt +
                                        " because it was marked as spam message by the system") !=
                                 std::string::npos
                             ? " "
                             : "? ");
            scanning = begins || (scanning && line.text != "Done...");
        }
        for (const Queued& sent : On())
            text += sent.sender == "<>" ? "report to " + sent.recipients.at(0)
                                        : "delivered to " + sent.recipients.at(0);
        return text;
    }
};

TEST_F(ContentScan, Outcomes)
{
    const std::string marked = "X-Spam-Status: YES\n";
    const std::string kSender = "paul@example.org";
    const std::string delivered = "scan: delivered to anna@example.com";
    const struct {
        const char* name;
        const char* list;
        std::string sender;
        std::string marks;
        std::string want;
    } rows[] = {
        {"no marks", "strict", kSender, "", delivered},
        {"marked, the list ignores it", "plain", kSender, marked, delivered},
        {"marked, discarded", "strict", kSender, marked, "scan: Discarded "},
        {"marked by its subject", "strict", kSender, "Subject: [SPAM] hi\n", "scan: Discarded "},
        {"marked, bounced", "polite", kSender, marked, "scan: Bounced report to paul@example.org"},
        {"marked, nobody to bounce to", "polite", "<>", marked, delivered},
        {"sender white-listed", "strict", "x@friends.example", marked, delivered},
        {"listed by an unknown blacklist", "plain", kSender, "X-kvtbl: new.example/1.2.3.4\n",
         "scan: Discarded "},
        {"listed, discarded by the server", "plain", kSender, "X-kvtbl: dropped.example/1.2.3.4\n",
         "scan: Discarded "},
        {"listed, ignored for this service", "plain", kSender, "X-kvtbl: ignored.example/1.2.3.4\n",
         delivered},
        {"the list's own action, ignore", "own", kSender, "X-kvtbl: dropped.example/1.2.3.4\n",
         delivered},
        {"the list's own action, bounce", "own", kSender, "X-kvtbl: ignored.example/1.2.3.4\n",
         "scan: Bounced report to paul@example.org"},
        {"address white-listed", "strict", kSender, "X-kvtbl: dropped.example/10.0.0.5\n",
         delivered},
        {"the scan comes before the mode", "closed", kSender, marked, "scan: Discarded "},
        {"and after the blocked member, who hears of that", "polite", "trader@example.net", marked,
         "report to trader@example.netdelivered to polite-boss@example.org"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Outcome(row.list, row.sender, row.marks), row.want);
    }
}

TEST_F(ContentScan, TheBounceIsTheListsReport)
{
    EXPECT_EQ(Outcome("polite", "paul@example.org", "X-Spam-Status: YES\n"),
              "scan: Bounced report to paul@example.org");
    const Queued report = On().at(0);
    EXPECT_EQ(report.flags, 128);
    EXPECT_NE(report.text.find("Final-Recipient: rfc822;polite@lists.example.org\r\n"),
              std::string::npos);
    EXPECT_NE(report.text.find("\tWe have seen this before.\r\n"), std::string::npos);
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

TEST_F(ContentScan, AFailedBounceDelivers)
{
    Start();
    Submit("paul@example.org", {std::string("polite") + kAt}, "X-Spam-Status: YES\n\nbody\n");
    queue->FailNext(QueueCall::kInsert);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(On().at(0).recipients.at(0), "anna@example.com");
    EXPECT_FALSE(log.HasPart("Bounced message"));
}

}  // namespace
}  // namespace dl::testing
