// Programs of every kind, and that none of them leaves anything behind.

#include "antispam/run_command.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/child.h"
#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

class RunCommandTest : public Fixture
{
 protected:
    // The setting for a shell script.
    std::string Script(const std::string& text)
    {
        const std::string path = Write("script", "#!/bin/sh\n" + text + "\n");
        chmod(path.c_str(), 0700);
        return path;
    }
    int Run(const std::string& setting, const std::string& message = "message")
    {
        const auto command = BuildCommandLine(setting, {{'M', Write("in.msg", message)}});
        return command ? RunCommand(*command, Path("in.msg")) : -100;
    }
    static std::size_t OpenFiles() { return FileNames("/proc/self/fd").size(); }
};

TEST_F(RunCommandTest, ExitCodes)
{
    const std::string big(3'000'000, 'x');
    const struct {
        const char* name;
        std::string setting, message;
        int want;
    } rows[] = {
        {"0", "/bin/true", "m", 0},
        {"another", Script("exit 3") + " a b", "m", 3},
        {"missing", "/no/such/program", "m", 255},
        {"missing, with a message", "|/no/such/program", big, 255},

        {"a folder", "/etc", "m", 255},
        {"no search in PATH", "true", "m", 255},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Run(row.setting, row.message), row.want) << row.name;
    EXPECT_TRUE(log.Has(6, "Executing cmdline :|/no/such/program"));
    EXPECT_TRUE(log.Has(6, "return code: 3"));
    EXPECT_EQ(log.Lines().front().module, "Bayesian filter");
}

TEST_F(RunCommandTest, InputAndOutput)
{
    const std::string big(3'000'000, 'x');
    const struct {
        const char *name, *bar;
        std::string script;
    } rows[] = {
        {"reads all", "|", "[ $(wc -c) = 3000000 ] && exit 7"},
        {"nothing to read without a bar", "", "[ $(wc -c) = 0 ] && exit 7"},

        {"never reads", "|", "exit 7"},

        {"closes its input", "|", "exec <&-; sleep 0.1; exit 7"},
        {"prints megabytes before it reads", "|",
         "head -c 3000000 /dev/zero; [ $(wc -c) = 3000000 ] && exit 7"},

        {"closes its output", "|", "exec >&- 2>&-; [ $(wc -c) = 3000000 ] && exit 7"},
        {"the message by its path", "", "[ $(wc -c <\"$1\") = 3000000 ] && exit 7"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Run(row.bar + Script(row.script) + " %M", big), 7) << row.name;
}

TEST_F(RunCommandTest, AMessageThatCannotBeRead)
{
    const auto command = BuildCommandLine("|/bin/cat", {});
    EXPECT_EQ(RunCommand(*command, Path("missing")), kMessageNotRead);
    EXPECT_EQ(RunCommand(*command, Path("")), kMessageNotRead) << "a folder";
}

TEST_F(RunCommandTest, SignalsOfTheCallerStayAsTheyWere)
{
    const std::string setting = "|" + Script("exit 7");
    const std::string big(1'000'000, 'x');
    struct sigaction ends_us = {};
    struct sigaction before = {};
    ends_us.sa_handler = SIG_DFL;
    ASSERT_EQ(sigaction(SIGPIPE, &ends_us, &before), 0);
    EXPECT_EQ(Run(setting, big), 7) << "and the default action did not end us";
    sigset_t blocked;
    sigset_t pending;
    sigpending(&pending);
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    EXPECT_EQ(sigismember(&blocked, SIGPIPE), 0);
    // The program starts with the signals as they are by default.
    ASSERT_EQ(sigaction(SIGPIPE, &before, nullptr), 0);
    EXPECT_EQ(Run(Script("grep -q '^SigBlk:.*0$' /proc/self/status && exit 7")), 7);
}

TEST_F(RunCommandTest, WithoutStandardDescriptors)
{
    const std::string setting = "|" + Script("[ $(wc -c) = 300000 ] && exit 7");
    const auto run = [&] {
        for (const int fd : {0, 1, 2})
            close(fd);
        return Run(setting, std::string(300'000, 'x'));
    };
    EXPECT_EQ(InChild(run), 7);
}

TEST_F(RunCommandTest, AThousandRunsLeaveNothingBehind)
{
    const std::string message(5000, 'x');
    ASSERT_EQ(Run("|/bin/true", message), 0);
    log.Clear();
    const std::size_t before = OpenFiles();
    const auto command = BuildCommandLine("|/bin/true", {});
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(RunCommand(*command, Path("in.msg")), 0);
    EXPECT_EQ(OpenFiles(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left";
    EXPECT_EQ(errno, ECHILD);
}

}  // namespace
}  // namespace dl::testing
