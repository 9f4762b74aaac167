#include "archive/index_schedule.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <optional>
#include <string>

#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/archive/archive.h"
#include "platform/clock/clock.h"
#include "platform/config/config.h"
#include "platform/config/data_path.h"
#include "platform/files/files.h"
#include "platform/log/log.h"
#include "schedule/date_arithmetic.h"
#include "schedule/due_file.h"

namespace dl
{
namespace
{

std::atomic<bool> working{false};

struct IndexSchedule {
    int hour = 0;
    int minute = 0;
    int frequency = kDaily;
    int weekday = 0;
    int month_day = 0;

    [[nodiscard]] std::time_t Next(std::time_t now) const
    {
        return nexttime(now, hour, minute, frequency, weekday, month_day);
    }
};

// Everything is brought within the calendar: day 0 of the next month is the last one of this, on
// which the next moment was then always the one that had just come.
IndexSchedule ReadSchedule()
{
    const auto number = [](const char* key, int low, int high) {
        return std::clamp(GetPrivateProfileInt("DlManager", key, 0, kMainConfig), low, high);
    };
    const std::string time =
        GetPrivateProfileString("DlManager", "ArchiveIndexTime", "00:00", 10, kMainConfig);
    const std::string frequency =
        GetPrivateProfileString("DlManager", "ArchiveIndexFrequency", "Daily", 16, kMainConfig);
    const std::size_t colon = time.find(':');
    IndexSchedule schedule;
    schedule.hour = std::clamp(std::atoi(time.c_str()), 0, 23);
    if (colon != std::string::npos)
        schedule.minute = std::clamp(std::atoi(time.c_str() + colon + 1), 0, 59);
    schedule.frequency = EqualNoCase(frequency, "weekly")    ? kWeekly
                         : EqualNoCase(frequency, "monthly") ? kMonthly
                                                             : kDaily;
    schedule.weekday = number("ArchiveDayOfWeek", 0, 6);
    schedule.month_day = number("ArchiveDayOfMonth", 1, 31);
    return schedule;
}

// A new file always holds today at the configured time, whatever the frequency; what lies after the
// next moment is corrected by the check.
void CreateWhenMissing(const std::string& path, const IndexSchedule& schedule, std::time_t now)
{
    if (FileSize(path) >= 0)
        return;
    const std::time_t first = adjusttime(now, schedule.hour, schedule.minute, kDaily,
                                         schedule.weekday, schedule.month_day);
    (void)DueFile::Create(path, first);  // without a data folder there is no archive to index
}

void GeneratePagesOf(const std::string& list)
{
    {
        const ArchiveLock archive(SharedArchive());
        archive->SetList(list);
        archive->GetArchivePath();
    }
    // Without the lock: filing a posting must not wait for minutes of page writing.
    CDlArchive::GenerateIndexPages(list);
}

void* GenerateArchiveIndexThread(void* /*nothing*/)
{
    try {
        GenerateArchiveIndexes();
    } catch (const std::exception& problem) {
        DlLog(1, "The archives' pages cannot be made: %s", problem.what());
    }
    working = false;
    return nullptr;
}

bool StartWorker()
{
    pthread_attr_t attributes;
    pthread_t worker;
    if (pthread_attr_init(&attributes) != 0)
        return false;
    working = true;
    const bool started =
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED) == 0 &&
        pthread_create(&worker, &attributes, GenerateArchiveIndexThread, nullptr) == 0;
    if (!started)
        working = false;
    pthread_attr_destroy(&attributes);
    return started;
}

}  // namespace

bool ArchiveWorkerRuns()
{
    return working;
}

void RunArchiveIndexSchedule()
{
    const IndexSchedule schedule = ReadSchedule();
    const std::string path = IndexDuePath();
    const std::time_t now = Now();
    CreateWhenMissing(path, schedule, now);
    DueFile file(path);
    if (!file.IsOpen())
        return;
    const std::time_t stored = file.Read();
    if (stored > schedule.Next(now) && !file.Overwrite(schedule.Next(now)))
        DlLog(1, "Unable to write file: %s", path.c_str());
    // A worker at a time: a moment that comes meanwhile waits for its end.
    if (now < stored || ArchiveWorkerRuns())
        return;
    static std::optional<std::time_t> unwritten;  // was worked for, and stands in the file still
    if (unwritten != stored) {
        DlLog(5, "Time to update the archive index pages of  all mailing lists");
        if (!StartWorker())
            return;  // the next check tries again
    }
    const std::time_t next = schedule.Next(Now());
    if (!file.Overwrite(next)) {
        if (unwritten != stored)
            DlLog(1, "Unable to write file: %s", path.c_str());
        unwritten = stored;
        return;
    }
    unwritten.reset();
    char text[32];
    DlLog(6, "Next archive index generation  will be on %.24s", ctime_r(&next, text));
}

void GenerateArchiveIndexes()
{
    dllist lists;
    (void)lists.RefreshCache();  // it has logged; without lists there is nothing to do
    for (const char* list = lists.GetFirstList(); list; list = lists.GetNextList()) {
        DlLog(5, "Generating archive index pages of %s mailing list", list);
        try {
            GeneratePagesOf(list);
        } catch (const CDlArchiveException& problem) {
            DlLog(1, "%s", problem.message);  // the other lists have pages too
        }
    }
    lists.DeleteCache();
    DlLog(5, "Releasing thread...");
}

}  // namespace dl
