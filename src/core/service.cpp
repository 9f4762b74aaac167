#include "core/service.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include "archive/index_schedule.h"
#include "core/background.h"
#include "digest/digest_schedule.h"
#include "dispatch/dispatcher.h"
#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/clock/clock.h"
#include "platform/config/config.h"
#include "platform/config/data_path.h"
#include "platform/log/log.h"
#include "platform/metrics/metrics.h"
#include "platform/mime/mime.h"
#include "platform/process/process.h"
#include "requests/confirmations.h"

namespace dl
{
namespace
{

constexpr char kModule[] = "DL Manager";
constexpr int kDefaultInterval = 15;
constexpr int kShortestIgnored = 5;
constexpr std::chrono::seconds kPause{1};

// Seconds between tries of a refresh that fails, doubled from one to the next.
constexpr int kShortestRefreshPause = 1;
constexpr int kLongestRefreshPause = 60;

// While the last pass ends, the service manager is told this often to wait so long.
constexpr std::time_t kTellSeconds = 10;
constexpr char kWaitForUs[] = "EXTEND_TIMEOUT_USEC=60000000";

volatile std::sig_atomic_t stop_requested = 0;

}  // namespace

int SignalHandler(int signal)
{
    switch (signal) {
        case SIGUSR1:
            return WriteProcessStatus(kProcessName, "Running");
        case SIGINT:
        case SIGTERM:
            stop_requested = 1;
            return 0;
        default:
            return signal;
    }
}

int RefreshInterval()
{
    const int minutes =
        GetPrivateProfileInt("DlManager", "CacheRefreshInterval", kDefaultInterval, kMainConfig);
    return minutes <= kShortestIgnored ? kDefaultInterval : minutes;
}

void SetTimeZone()
{
    static char variable[40];
    const std::string zone = GetPrivateProfileString("Gateway", "TimeZone", "", 32, kMainConfig);
    if (zone.empty() || StartsWithNoCase(zone, "xxx"))
        return;
    std::snprintf(variable, sizeof variable, "TZ=%s", zone.c_str());
    (void)putenv(variable);  // it can only run out of memory, and then the old zone stands
    tzset();
}

int Service::Run()
{
    const ProcessInfo registered = InitProcessInfo(kProcessName, SignalHandler);
    TellStarted(registered.reason);
    if (registered.result != Registration::kDone) {
        DlLog(1, "%s", registered.reason.c_str());
        return 1;
    }
    if (!Start())
        return 1;
    Loop();
    Stop();
    return 0;
}

bool Service::Start()
{
    SetTimeZone();
    const bool counting = OpenMetrics(QueuePath(), "dlmanager");
    const int minutes = RefreshInterval();
    interval_ = std::int64_t{60} * minutes;
    DlLog(6, "Initialize mailing list entry cache..");
    (void)ListCache().InitCache();  // it has logged; the loop looks at what came of it
    DlLog(6, "Done..");
    DlLog(6, "Refreshing mailing list in every %d minutes", minutes);
    const std::string host =
        GetPrivateProfileString("Ldap", "HostName", "DefaultHostName", 128, kMainConfig);
    DlLog(6, "Connected to %s Server", host.c_str());
    if (!MQInit(host, kModule)) {
        RemoveProcessInfo(kProcessName);
        DlLog(1, "MQInit failed, exiting ...");
        return false;
    }
    if (!counting)
        (void)OpenMetrics(QueuePath(), "dlmanager");  // the folder is there now; nothing needs it
    MarkStart();
    channel_ = OpenMQChannel(kInputChannel);
    if (!channel_) {
        DlLog(1, "Cannot Open Message Queue Channel");
        RemoveProcessInfo(kProcessName);
        return false;
    }
    InitKVTDll(kModule);
    (void)WriteProcessStatus(kProcessName, "Running");  // only what a tool shows depends on it
    NotifyServiceManager("READY=1");
    FlushLog();
    return true;
}

void Service::Loop()
{
    next_refresh_ = Uptime() + interval_;
    while (stop_requested == 0 && Turn())
        FlushLog();
}

bool Service::Turn()
{
    dllist& cache = ListCache();
    if (cache.WaitsForDirectory()) {
        SleepFor(kPause);
        return true;
    }
    MQNeedsRoomAt(DataPath());
    const int stop = ProcessQueue(channel_, kInputChannel, kOutputChannel, &processed_recipients_,
                                  [this] { TellThatItEnds(); });
    freeStringChain(&processed_recipients_);
    if (stop != 0)
        return false;
    FlushLog();
    (void)WaitForMQNews(kPause);  // it is time to look again in any case
    RefreshWhenDue();
    RunSchedules();
    return true;
}

// The turns come as mail does, the schedules once a second.
void Service::RunSchedules()
{
    const std::time_t now = Now();
    if (now == last_schedules_)
        return;
    last_schedules_ = now;
    RunDigestSchedule(kOutputChannel);
    RunArchiveIndexSchedule();
}

// A pass that goes on after a signal may take longer than the service manager waits by itself.
void Service::TellThatItEnds()
{
    const std::time_t now = Now();
    if (stop_requested == 0 || std::abs(now - last_told_) < kTellSeconds)
        return;
    last_told_ = now;
    NotifyServiceManager(kWaitForUs);
}

void Service::RefreshWhenDue()
{
    const std::int64_t uptime = Uptime();
    if (uptime < next_refresh_)
        return;
    DlLog(6, "Refreshing cache..");
    (void)ListCache().RefreshCache();  // RefreshFailed tells more
    DlLog(6, "Done..");
    ExpireConfirmations();
    const bool failed = ListCache().RefreshFailed();
    if (failed && refresh_pause_ == 0)
        DlLog(1, "The lists cannot be refreshed, those that are known serve on");
    else if (!failed && refresh_pause_ != 0)
        DlLog(5, "The lists can be refreshed again");
    refresh_pause_ =
        failed ? std::clamp(2 * refresh_pause_, kShortestRefreshPause, kLongestRefreshPause) : 0;
    next_refresh_ = uptime + (failed ? refresh_pause_ : interval_);
}

void Service::Stop()
{
    NotifyServiceManager("STOPPING=1");
    RemoveProcessInfo(kProcessName);
    if (!CloseMQChannel(channel_))
        DlLog(1, "Cannot Close Message Queue Channel");
    TerminateKVTDll();
    ListCache().DeleteCache();
    DlLog(6, "Terminating");
    FlushLog();
}

}  // namespace dl
