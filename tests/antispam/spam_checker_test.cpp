// Marks, verdicts and their order.

#include "antispam/spam_checker.h"

#include <map>

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
    for (const auto& row : ReadTable("tables/spam.txt", "marks in a message")) {
        SCOPED_TRACE(row.at(0));
        const SpamMarks marks = ReadSpamMarks(Write("m.msg", row.at(1)), row.at(4));
        EXPECT_TRUE(marks.readable);
        EXPECT_EQ(marks.marked, row.at(2) == "true");
        EXPECT_EQ(marks.blacklists.value_or("none"), row.at(3));
    }
    EXPECT_FALSE(ReadSpamMarks(Path("missing.msg"), "").readable);
    EXPECT_FALSE(ReadSpamMarks(Path(""), "").readable) << "a folder";
}

TEST_F(SpamMarksTest, TheMarkerOfTheSubject)
{
    for (const auto& row : ReadTable("tables/spam.txt", "markers of a subject")) {
        SCOPED_TRACE(row.at(0));
        Gateway("[SpamAssassin]\n" + row.at(1) + "\n");
        EXPECT_EQ(SubjectMarker("DL"), row.at(2));
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

TEST_F(SpamCheckerTest, Verdicts)
{
    Records({"ignored.example,P,I", "dropped.example,P,D", "filed.example,P,I,DL:F",
             "bounced.example,P,I,DL:B"});
    (void)settings.Set(Text::kWhiteList, "*@friends.example,boss@example.com");
    (void)settings.Set(Text::kIPWhiteList, "10.0.0.1-10.0.0.9");
    (void)settings.SetHostAction("dropped.example", kSpamIgnore, std::nullopt);
    (void)settings.SetHostAction("own.example", kSpamBounce, "Listed by own.example.");
    const std::map<std::string, int> actions = {{"ignore", kSpamIgnore},
                                                {"discard", kSpamDiscard},
                                                {"bounce", kSpamBounce},
                                                {"file", kSpamFile}};
    for (const auto& row : ReadTable("tables/spam.txt", "verdicts")) {
        SCOPED_TRACE(row.at(0));
        const int want = std::stoi(row.at(3));
        settings.SetKestruneAction(actions.at(row.at(1)));
        queue.ClearCalls();
        EXPECT_EQ(Check(row.at(2), row.at(4)), want);
        EXPECT_EQ(queue.Calls(), want == 6 ? "create insert(dlout,0) envelope close" : "");
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

}  // namespace
}  // namespace dl::testing
