#include "digest/digest_schedule.h"

#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "digest/digest.h"
#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/clock/clock.h"
#include "platform/log/log.h"
#include "schedule/date_arithmetic.h"
#include "schedule/due_file.h"

namespace dl
{
namespace
{

void Move(DueFile* file, const std::string& list, std::time_t next)
{
    if (!file->Overwrite(next))
        DlLog(1, "Unable to write file: %s", DigestDuePath(list).c_str());
}

void SendWhenDue(const std::string& list, std::time_t now, const std::string& channel)
{
    DueFile file(DigestDuePath(list));
    if (!file.IsOpen())
        return;
    const DigestTime time = ListCache().GetDigestTime(list);
    const std::time_t next =
        nexttime(now, time.hour, time.minute, time.frequency, time.day, time.day);
    if (file.Read() > next)
        Move(&file, list, next);
    if (now < file.Read())
        return;
    DlLog(6, "Time to send message digest for mailing list (%s)", list.c_str());
    // What failed has been logged; the schedule goes on, and the postings wait for the next digest.
    if (ListCache().UseMimeDigest(list))
        (void)SendMimeDigest(list, channel, next);
    else
        (void)SendPlainDigest(list, channel, next);
    Move(&file, list, next);
    char text[32];
    DlLog(6, "Next message digest will be sent on %.24s", ctime_r(&next, text));
}

}  // namespace

void RunDigestSchedule(const std::string& channel)
{
    const std::time_t now = Now();
    std::set<std::string> unfinished;
    if (!FinishSentDigests(&unfinished))
        return;  // the pass over the queue has said that it cannot be read
    dllist& cache = ListCache();
    // Sending moves the cache's cursor, to the first of two lists of one name: all are named first.
    std::vector<std::string> lists;
    for (const char* list = cache.GetFirstList(); list; list = cache.GetNextList())
        if (IsSafeFolderName(list))
            lists.emplace_back(list);
    for (const std::string& list : lists)
        if (!unfinished.contains(list))
            SendWhenDue(list, now, channel);
}

}  // namespace dl
