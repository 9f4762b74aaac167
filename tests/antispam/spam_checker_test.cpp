// Marks, verdicts and their order.

#include "antispam/spam_checker.h"

#include "antispam/spam_marks.h"
#include "tests/antispam/spam_fixture.h"

namespace dl::testing
{
namespace
{

using Text = AntiSpamConfig::Text;

class SpamMarksTest : public SpamFixture
{
};

TEST_F(SpamMarksTest, AreReadFromTheHeaderOnly)
{
    const struct {
        const char* name;
        std::string message;
        bool marked;
        const char* blacklists = "-";  // "-": none
        const char* marker = "";
    } rows[] = {

        {"status", "X-Spam-Status: YES\r\n\r\n", true},
        {"status with scores, any case", "x-spam-status: yes, score=9.1\r\n\r\n", true},
        {"status no", "X-Spam-Status: No, score=1\r\n\r\n", false},
        {"status without the blank", "X-Spam-Status:YES\r\n\r\n", false},
        {"in the body", "From: a\r\n\r\nX-Spam-Status: YES\r\nX-kvtbl: a/1.2.3.4\r\n", false},
        {"a bare line feed does not end the header", "From: a\r\n\nX-Spam-Status: YES\r\n\r\n",
         true},

        {"one line end goes", "X-kvtbl: a/1.2.3.4\r\r\n\r\n", false, "a/1.2.3.4\r"},
        {"LF alone", "X-kvtbl: a/1.2.3.4\nA: b\r\n\r\n", false, "a/1.2.3.4"},

        {"the last one holds", "X-kvtbl: a/1.2.3.4\r\nX-kvtbl: b/5.6.7.8\r\n\r\n", false,
         "b/5.6.7.8"},

        {"subject", "subject: [SPAM] hi\r\n\r\n", true, "-", "[SPAM]"},
        {"subject without the blank", "Subject:[SPAM]\r\n\r\n", true, "-", "[SPAM]"},
        {"subject, other case", "Subject: [spam] hi\r\n\r\n", false, "-", "[SPAM]"},

        {"another header", "X-Subject: [SPAM]\r\n\r\n", false, "-", "[SPAM]"},

        {"NUL bytes", std::string("A: \0b\r\nX-Spam-Status: YES\r\n\r\n", 28), true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const SpamMarks marks = ReadSpamMarks(Write("m.msg", row.message), row.marker);
        EXPECT_TRUE(marks.readable);
        EXPECT_EQ(marks.marked, row.marked);
        EXPECT_EQ(marks.blacklists.value_or("-"), row.blacklists);
    }
    EXPECT_FALSE(ReadSpamMarks(Path("missing.msg"), "").readable);
    EXPECT_FALSE(ReadSpamMarks(Path(""), "").readable) << "a folder";
}

TEST_F(SpamMarksTest, TheMarkerOfTheSubject)
{
    const struct {
        const char *name, *keys, *want;
    } rows[] = {
        {"none", "", ""},
        {"global", "Action-global = ChangeSubject,*SPAM*", "*SPAM*"},
        {"ours before the global one",
         "Action-global = ChangeSubject,a\nAction-DL = changesubject,b", "b"},
        {"ours says something else", "Action-global = ChangeSubject,a\nAction-DL = Discard", ""},
        {"ours is empty", "Action-global = ChangeSubject,a\nAction-DL =", "a"},
        {"no comma", "Action-DL = ChangeSubject", ""},

        {"all after the first comma", "Action-DL = ChangeSubject,a,b", "a,b"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Gateway(std::string("[SpamAssassin]\n") + row.keys + "\n");
        EXPECT_EQ(SubjectMarker("DL"), row.want);
    }
}

class SpamCheckerTest : public SpamFixture
{
 protected:
    SpamCheckerTest() : queue(Path("queue"))
    {
        checker.SetName("DL");
        settings.SetKestruneAction(kSpamIgnore);
    }
    // The number of the verdict.
    int Check(const std::string& message, const std::string& sender = "bert@example.com")
    {
        checker.SetListSettings(&settings, "garden@lists.example.org");
        checker.LoadRblDefaults();
        return static_cast<int>(checker.Check(sender, "", Write("0000000A.msg", message)));
    }

    FailingQueue queue;
    SpamChecker checker;
    AntiSpamConfig settings;
};

constexpr char kMarked[] = "X-Spam-Status: YES\r\n\r\nbuy\r\n";

TEST_F(SpamCheckerTest, Verdicts)
{
    Records({"ignored.example,P,I", "dropped.example,P,D", "filed.example,P,I,DL:F",
             "bounced.example,P,I,DL:B"});
    (void)settings.Set(Text::kWhiteList, "*@friends.example,boss@example.com");
    (void)settings.Set(Text::kIPWhiteList, "10.0.0.1-10.0.0.9");
    (void)settings.SetHostAction("dropped.example", kSpamIgnore, std::nullopt);
    (void)settings.SetHostAction("own.example", kSpamBounce, "Listed by own.example.");
    const auto listed = [](const std::string& value) { return "X-kvtbl: " + value + "\r\n\r\n"; };
    const struct {
        const char* name;
        int action;
        std::string message;
        int want;
        const char* sender = "bert@example.com";
    } rows[] = {
        {"no mark", kSpamDiscard, "A: b\r\n\r\n", 0},

        {"marked, discard", kSpamDiscard, kMarked, 2},
        {"marked, file without a user", kSpamFile, kMarked, 4},
        {"marked, bounce", kSpamBounce, kMarked, 6},
        {"marked, bounce to nobody", kSpamBounce, kMarked, 4, "<>"},
        {"white-listed before the marks", kSpamDiscard, kMarked, 7, "x@friends.example"},
        {"white list, other case", kSpamDiscard, kMarked, 2, "Boss@example.com"},

        {"known one, file", kSpamIgnore, listed("filed.example/1.2.3.4"), 4},
        {"known one, bounce", kSpamIgnore, listed("bounced.example/1.2.3.4"), 6},
        {"the list's own action", kSpamDiscard, listed("dropped.example/1.2.3.4"), 1},
        {"of a host nobody else knows", kSpamIgnore, listed("OWN.example/1.2.3.4"), 6},
        {"the last host decides", kSpamIgnore, listed("new.example,ignored.example/1.2.3.4"), 1},
        {"the last host decides, other way", kSpamIgnore,
         listed("ignored.example,new.example/1.2.3.4"), 2},
        {"white-listed address", kSpamDiscard, listed("new.example/10.0.0.5"), 8},

        {"address white-listed, though marked", kSpamDiscard,
         "X-Spam-Status: YES\r\n" + listed("new.example/10.0.0.5"), 8},
        {"no address", kSpamIgnore, listed("new.example"), 1},

        {"no host", kSpamBounce, listed("/1.2.3.4"), 6},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        settings.SetKestruneAction(row.action);
        queue.ClearCalls();
        EXPECT_EQ(Check(row.message, row.sender), row.want);
        EXPECT_EQ(queue.Calls(), row.want == 6 ? "create insert(dlout,0) envelope close" : "");
    }
}

TEST_F(SpamCheckerTest, WithoutSettingsOrMessage)
{
    EXPECT_EQ(checker.Name(), "DL");
    EXPECT_EQ(SpamChecker().Name(), "local");
    EXPECT_EQ(checker.Check("a@b", "", Path("missing.msg")), SpamVerdict::kNoSettings);
    checker.SetListSettings(&settings, "garden@lists.example.org");
    EXPECT_EQ(checker.Check("a@b", "", Path("missing.msg")), SpamVerdict::kFailed);
}

TEST_F(SpamCheckerTest, SaysWhatItSaw)
{
    const std::string path = Path("0000000A.msg");
    EXPECT_EQ(Check("X-Spam-Status: YES\r\nX-kvtbl: a/1.2.3.4\r\n\r\n"), 2);
    EXPECT_TRUE(log.Has(5, path + " was marked as spam message by SpamAssassin plugin"));
    EXPECT_TRUE(log.Has(5, "Detected x-kvtbl header (a/1.2.3.4) in message file " + path));
}

TEST_F(SpamCheckerTest, EachReasonReachesItsBounce)
{
    Records({"bounced.example,P,I,DL:B"});
    settings.SetKestruneAction(kSpamBounce);
    (void)settings.SetHostAction("own.example", kSpamBounce, "Listed by own.example.");
    const struct {
        const char *message, *reason;
    } rows[] = {
        {kMarked, "Please stop sending spam message to me."},
        {"X-kvtbl: bounced.example/1.2.3.4\r\n\r\n", "Please stop sending spam message to me."},
        {"X-kvtbl: own.example/1.2.3.4\r\n\r\n", "Listed by own.example."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.message);
        EXPECT_EQ(Check(row.message), 6);
        std::vector<QueueItem> items;
        ASSERT_TRUE(ListMQ("dlout", 0, &items));
        ASSERT_EQ(items.size(), 1U);
        const std::string report = ReadFile(GetMQPathName(items[0].id, ".msg"));
        EXPECT_NE(report.find(std::string("\r\n\t") + row.reason + "\r\n"), std::string::npos);
        EXPECT_NE(report.find("Final-Recipient: rfc822;garden@lists.example.org\r\n"),
                  std::string::npos);
        EXPECT_EQ(items[0].sender, "<>");
        EXPECT_EQ(RemoveMQItem(items[0].id), QueueChange::kDone);
    }
}

}  // namespace
}  // namespace dl::testing
