// dlctl: the tool by which an operator sees and steers the list manager.

#include <sysexits.h>

#include <cstdio>
#include <exception>
#include <stdexcept>

#include "platform/config/config.h"
#include "platform/config/data_path.h"
#include "platform/log/log.h"
#include "platform/process/process.h"
#include "platform/process/user.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/progress.h"

namespace
{

// What the libraries report of a failure is an operator's business, their progress is not.
class ErrorsOnly : public dl::LogSink
{
 public:
    void Write(int level, const char* /*module*/, const std::string& escaped) override
    {
        if (level <= 1)
            dl::PrintErrorLine("dlctl: " + escaped);
    }
};

// Commands that look at everything and make nothing in the service's folders; what "check --fix"
// makes there it gives to the service.
bool OnlyLooks(const CLI::App& program)
{
    for (const char* name : {"status", "check", "explain", "metrics"})
        if (program.got_subcommand(name))
            return true;
    return false;
}

// Root's files in the queue or in a data folder would be out of the service's reach.
void LeaveRoot()
{
    std::string error;
    if (!dl::BecomeOwnerOf(dl::DataPath(), &error))
        throw std::runtime_error(error);
}

int Run(int argc, char** argv)
{
    ErrorsOnly errors;
    dl::SetLogSink(&errors);
    CLI::App program("Shows and steers the mailing-list manager.", "dlctl");
    program.set_version_flag("--version", "dlctl " DL_VERSION);
    program.require_subcommand(1);
    std::string folder;
    program
        .add_option("--conf", folder,
                    "Configuration folder (default $DLMANAGER_CONF or /etc/dlmanager)")
        ->each([](const std::string& name) { dl::SetConfigFolder(name); });
    dl::SetConfigReporter(
        [](const std::string& problem) { dl::PrintErrorLine("dlctl: " + problem); });
    program.parse_complete_callback([&program] {
        if (!OnlyLooks(program))
            LeaveRoot();
    });
    int status = 0;
    dl::AddStatusCommands(&program, &status);
    dl::AddCheckCommands(&program, &status);
    dl::AddExplainCommands(&program, &status);
    dl::AddMetricsCommands(&program, &status);
    dl::AddListCommands(&program, &status);
    dl::AddMemberCommands(&program, &status);
    dl::AddQueueCommands(&program, &status);
    dl::AddArchiveCommands(&program, &status);
    dl::AddStoreCommands(&program, &status);
    dl::AddSpamCommands(&program, &status);
    dl::AddDirectoryCommands(&program, &status);
    dl::AddExamples(&program);
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& problem) {
        return program.exit(problem) == 0 ? EX_OK : EX_USAGE;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    dl::HoldStandardStreams();
    try {
        return Run(argc, argv);
    } catch (const std::exception& problem) {
        std::fprintf(stderr, "dlctl: %s\n", problem.what());
    } catch (...) {
        std::fputs("dlctl: an unknown fault\n", stderr);
    }
    return EX_SOFTWARE;
}
