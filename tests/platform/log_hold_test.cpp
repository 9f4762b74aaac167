// Which lines are written when: none says what is not so on disk.

#include "platform/log/log_hold.h"

#include "platform/log/log.h"
#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

class HeldLines : public Fixture
{
 protected:
    // What has been written since the last look, as "<level> <text>; ".
    std::string Written()
    {
        std::string all;
        for (const auto& line : log.Lines())
            all += std::to_string(line.level) + " " + line.text + "; ";
        log.Clear();
        return all;
    }
    // A message: something said before its result, the result, something after it.
    static void Message(const std::string& name)
    {
        DlLog(6, "%s begins", name.c_str());
        PromiseLines("not submitted");
        DlLog(3, "Delivered %s", name.c_str());
        WriteWhenTrue([name] { DlLog(3, "Delivered %s in many lines", name.c_str()); });
    }
};

TEST_F(HeldLines, AreWrittenAtOnceUpToTheFirstPromise)
{
    Message("alone");
    EXPECT_EQ(Written(), "6 alone begins; 3 Delivered alone; 3 Delivered alone in many lines; ");
    LogHold hold;
    Message("one");
    EXPECT_EQ(Written(), "6 one begins; ");
    hold.EndPart();
    Message("two");
    EXPECT_EQ(Written(), "") << "the order of lines is kept";
    hold.EndPart();
    hold.Release(2);
    EXPECT_EQ(Written(),
              "3 Delivered one; 3 Delivered one in many lines; 6 two begins; 3 Delivered two; "
              "3 Delivered two in many lines; ");
    DlLog(5, "at once");
    EXPECT_EQ(Written(), "5 at once; ");
}

TEST_F(HeldLines, OfWhatIsCommittedFirstDoNotWait)
{
    LogHold hold;
    Message("one");
    hold.EndPart();
    DlLog(5, "no results");
    hold.EndPart();
    DlLog(5, "the next");
    hold.Release(1);
    EXPECT_EQ(Written(), "6 one begins; 3 Delivered one; 3 Delivered one in many lines; ");
    hold.Release(1);
    EXPECT_EQ(Written(), "5 no results; 5 the next; ");
}

TEST_F(HeldLines, SayNothingOfWhatDidNotBecomeTrue)
{
    log.ExpectError("");
    LogHold hold;
    Message("one");
    DlLog(1, "error behind one");
    hold.EndPart();
    Message("two");
    DlLog(1, "error behind two");
    hold.EndPart();
    EXPECT_EQ(Written(), "6 one begins; ");
    DlLog(1, "what the commit says");
    hold.Break();
    EXPECT_EQ(Written(), "1 what the commit says; 1 not submitted; 1 error behind one; ");
    DlLog(5, "at once");
    EXPECT_EQ(Written(), "5 at once; ");
    Message("dropped");
    DlLog(1, "why");
    EXPECT_EQ(Written(), "6 dropped begins; ");
    hold.DropPart();
    EXPECT_EQ(Written(), "1 why; ");
    DlLog(5, "go on");
    EXPECT_EQ(Written(), "5 go on; ");
}

TEST_F(HeldLines, OfADroppedMessageWaitForThoseBefore)
{
    log.ExpectError("");
    {
        LogHold hold;
        Message("one");
        hold.EndPart();
        Message("two");
        DlLog(1, "why two");
        hold.DropPart();
        EXPECT_EQ(Written(), "6 one begins; ");
        hold.EndPart();
        hold.Release(2);
    }
    EXPECT_EQ(Written(),
              "3 Delivered one; 3 Delivered one in many lines; 6 two begins; 1 why two; ");
}

}  // namespace
}  // namespace dl::testing
