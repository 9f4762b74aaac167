// dlctl directory wait: what a service's start stands on.

#include <thread>

#include "tests/support/child.h"
#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

class DirectoryWait : public Fixture
{
 protected:
    DirectoryWait() { Configure("[Ldap]\nFile = directory.ldif\n"); }
    int Wait(const char* seconds)
    {
        return RunDlctl(Path("conf"), {"directory", "wait", "--seconds", seconds}, &output_);
    }
    void Appear(const std::string& text) { Write("conf/directory.ldif", text); }

    const std::string kGood = "dn: dc=org\nobjectClass: dcObject\ndc: org\n\n";
    std::string output_;
};

TEST_F(DirectoryWait, AnswersAtOnceWhenItIsThere)
{
    Appear(kGood);
    EXPECT_EQ(Wait("0"), 0) << output_;
    EXPECT_EQ(output_, "");
}

TEST_F(DirectoryWait, GivesUpInTimeAndSaysTheCauseOnce)
{
    Appear("dn: dc=org\nno colon here\n\n");
    EXPECT_EQ(Wait("3"), 1);
    const std::size_t cause = output_.find("line 2");
    EXPECT_NE(cause, std::string::npos) << output_;
    EXPECT_EQ(output_.find("line 2", cause + 1), std::string::npos) << output_;
    EXPECT_NE(output_.find("the directory does not answer, after 3 s"), std::string::npos)
        << output_;
}

TEST_F(DirectoryWait, GoesOnWhenItComes)
{
    std::thread comes([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        Appear(kGood);
    });
    const int status = Wait("30");
    comes.join();
    EXPECT_EQ(status, 0) << output_;
}

}  // namespace
}  // namespace dl::testing
