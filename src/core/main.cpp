// dlmanager, the list manager's service. It takes no arguments; DLMANAGER_CONF names the
// configuration folder.

#include <cstdlib>

#include "archive/index_schedule.h"
#include "core/service.h"
#include "lists/dllist.h"
#include "platform/archive/archive.h"
#include "platform/config/config.h"
#include "platform/log/log.h"

int main()
{
    // In this order, so that they go the other way round at exit.
    (void)dl::ListCache();
    (void)dl::SharedArchive();
    if (dl::RunInBackground() != 0) {
        dl::DlLog(1, "failed to fork child process");
        return -1;
    }
    dl::SetConfigReporter([](const std::string& problem) { dl::DlLog(1, "%s", problem.c_str()); });
    std::string error;
    if (!dl::OpenLog(dl::ReadLogSettings(), "dlmanager", &error))
        dl::DlLog(1, "The log cannot be opened, using standard error: %s", error.c_str());
    dl::Service service;
    const int result = service.Run();
    if (dl::ArchiveWorkerRuns())
        std::_Exit(result);  // it still uses what an exit would destroy; its pages are whole at
                             // every moment
    dl::CloseLog();
    return result;
}
