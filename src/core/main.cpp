// dlmanager, the list manager's service. It takes no arguments; DLMANAGER_CONF names the
// configuration folder.

#include <malloc.h>

#include <cstdlib>

#include "archive/index_schedule.h"
#include "core/background.h"
#include "core/service.h"
#include "lists/dllist.h"
#include "platform/archive/archive.h"
#include "platform/config/config.h"
#include "platform/log/log.h"
#include "platform/process/process.h"

namespace
{

// Large pieces of memory go back to the system when they are freed. By itself the C library keeps
// them once it has seen some, and a posting to a list of 100,000 members would leave the service
// half as big again as it needs to be.
constexpr int kLargePiece = 1024 * 1024;

}  // namespace

int main()
{
    (void)mallopt(M_MMAP_THRESHOLD, kLargePiece);
    (void)mallopt(M_TRIM_THRESHOLD, kLargePiece);
    dl::HoldStandardStreams();
    // In this order, so that they go the other way round at exit.
    (void)dl::ListCache();
    (void)dl::SharedArchive();
    const bool forked = dl::RunInBackground() == 0;
    dl::SetConfigReporter([](const std::string& problem) { dl::DlLog(1, "%s", problem.c_str()); });
    std::string error;
    const dl::LogSettings log = dl::ReadLogSettings();
    const bool opened = dl::OpenLog(log, "dlmanager", &error);
    if (!opened)
        dl::DlLog(1, "The log cannot be opened, using standard error: %s", error.c_str());
    if (!forked) {
        dl::DlLog(1, "failed to fork child process");
        dl::CloseLog();
        return -1;
    }
    dl::LeaveStandardStreams(!opened || log.target == dl::LogSettings::Target::kStderr);
    dl::Service service;
    const int result = service.Run();
    if (dl::ArchiveWorkerRuns())
        std::_Exit(result);  // it still uses what an exit would destroy; its pages are whole at
                             // every moment
    dl::CloseLog();
    return result;
}
