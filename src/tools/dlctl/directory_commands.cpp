// dlctl directory: wait.

#include <cstdio>
#include <ctime>
#include <memory>

#include "lists/directory_access.h"
#include "platform/clock/clock.h"
#include "platform/config/config.h"
#include "platform/log/log.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

constexpr std::chrono::seconds kPause{2};
constexpr int kDefaultSeconds = 60;
constexpr int kMaxSeconds = 86'400;

// Says each cause once, not at every try.
class ChangedErrors : public LogSink
{
 public:
    void Write(int level, const char* /*module*/, const std::string& escaped) override
    {
        // Why a server cannot be reached is level 5.
        if (level > 5 || escaped == last_)
            return;
        last_ = escaped;
        std::fprintf(stderr, "dlctl: %s\n", escaped.c_str());
    }

 private:
    std::string last_;
};

// Connects, binds and searches for lists, as the service does when it starts. What is wrong with
// the directory, or with the right to read it, shows here and not in a service without lists.
bool DirectoryServes()
{
    constexpr int kSubtree = 2;
    const DirectoryLogin login = ReadDirectoryLogin(kMainConfig);
    ldapClient client;
    return client.ldapClientConnect(login.host, login.port) == 0 &&
           client.ldapClientBind(login.user, login.password) == 0 &&
           !client.ldapClientSearch(nullptr, kSubtree, true, "(objectclass=qvlist)").failed;
}

int Wait(int seconds)
{
    ChangedErrors errors;
    LogSink* before = SetLogSink(&errors);
    const std::time_t end = Now() + seconds;
    bool serves = DirectoryServes();
    while (!serves && Now() < end) {
        SleepFor(kPause);
        serves = DirectoryServes();
    }
    (void)SetLogSink(before);
    return serves ? kExitOk
                  : Complain(kExitFailed, "the directory does not answer, after %d s", seconds);
}

}  // namespace

void AddDirectoryCommands(CLI::App* program, int* status)
{
    CLI::App* directory =
        program->add_subcommand("directory", "The directory that holds the lists");
    directory->require_subcommand(1);
    auto seconds = std::make_shared<int>(kDefaultSeconds);
    CLI::App* wait = directory->add_subcommand(
        "wait", "Wait until the directory answers, for a service's start");
    wait->add_option("--seconds", *seconds, "At most so long (default 60)")
        ->check(CLI::Range(0, kMaxSeconds));
    wait->callback([=] { *status = Wait(*seconds); });
}

}  // namespace dl
