// dlctl check: the archive of a list.

#include "platform/archive/archive.h"
#include "platform/log/format.h"
#include "tools/dlctl/check.h"

namespace dl
{

namespace
{

constexpr std::size_t kNamed = 5;  // postings in one finding

// Warns of those that are left out, or of those that are shown in part.
void WarnOf(const std::string& list, const std::vector<LeftOutPosting>& all, bool in_part,
            CheckReport* report)
{
    std::size_t count = 0;
    std::string named;
    unsigned long first = 0;
    for (const LeftOutPosting& one : all) {
        if (one.in_part != in_part || ++count > kNamed)
            continue;
        first = count == 1 ? one.id : first;
        named += (named.empty() ? "" : ", ") + one.file;
        named += one.cause.empty() ? "" : " (" + one.cause + ")";
    }
    if (count == 0)
        return;
    if (count > kNamed)
        named += FormatText(" and %zu more", count - kNamed);
    report->Warn(
        FormatText("the archive of the list %s %s %zu posting(s) that cannot be read%s: %s",
                   list.c_str(), in_part ? "shows in part" : "leaves out", count,
                   in_part ? " whole" : "", named.c_str()),
        FormatText("put the files right and run dlctl archive unreadable --retry %s, or "
                   "dlctl archive remove %s %08lX",
                   list.c_str(), list.c_str(), first));
}

}  // namespace

// What its pages leave out, or show in part.
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
        else if (problem.fault == ArchiveFault::kMachine)
            report->Fail(what, "look at the disk, its room and its log");
        else
            report->CannotTell(what, "run this as root or as the service's user");
        return;
    }
    for (const bool in_part : {false, true})
        WarnOf(list, left_out, in_part, report);
}

}  // namespace dl
