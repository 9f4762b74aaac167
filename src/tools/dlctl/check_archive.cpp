// dlctl check: the archive of a list.

#include "platform/archive/archive.h"
#include "platform/log/format.h"
#include "tools/dlctl/check.h"

namespace dl
{

// What its pages leave out.
void CheckArchive(const std::string& list, CheckReport* report)
{
    std::vector<LeftOutPosting> left_out;
    try {
        left_out = CDlArchive::LeftOut(list);
    } catch (const CDlArchiveException& problem) {
        const std::string what = "the archive of the list " + list + ": " + problem.message;
        if (problem.fault == ArchiveFault::kNewer)
            report->Fail(what,
                         "install the newer version again, or bring back index.db from before the "
                         "upgrade and remove index.db-wal and index.db-shm");
        else if (problem.fault == ArchiveFault::kDamaged)
            report->Fail(what, "dlctl archive rebuild " + list);
        else
            report->CannotTell(what, "run this as root or as the service's user");
        return;
    }
    if (left_out.empty())
        return;
    const LeftOutPosting& first = left_out.front();
    report->Warn(
        FormatText("the archive of the list %s leaves out %zu posting(s) that cannot be read, the "
                   "first is %s%s%s",
                   list.c_str(), left_out.size(), first.file.c_str(),
                   first.cause.empty() ? "" : ": ", first.cause.c_str()),
        FormatText("put the files right and run dlctl archive unreadable --retry %s, or dlctl "
                   "archive remove %s %08lX",
                   list.c_str(), list.c_str(), first.id));
}

}  // namespace dl
