// dlctl check: folders, queue, disks, relay.

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "platform/address/address.h"
#include "platform/config/config.h"
#include "platform/config/data_path.h"
#include "platform/log/format.h"
#include "platform/metrics/metrics.h"
#include "platform/process/process.h"
#include "platform/queue/queue.h"
#include "platform/smtp/session.h"
#include "schedule/due_file.h"
#include "tools/dlctl/check.h"

namespace dl
{
namespace
{

constexpr std::chrono::seconds kRelayBound{10};

std::string Setting(const char* section, const char* key, const char* fallback)
{
    return GetPrivateProfileString(section, key, fallback, 4096, kMainConfig);
}

std::string FolderOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
}

void CheckRoom(const char* role, const std::string& path, std::int64_t least, CheckReport* report)
{
    constexpr std::uint64_t kMega = 1U << 20;
    constexpr std::uint64_t kFewFiles = 1000;
    struct statvfs disk {
    };
    if (statvfs(path.c_str(), &disk) != 0)
        return;  // a missing folder is told elsewhere
    const std::uint64_t free = static_cast<std::uint64_t>(disk.f_bavail) * disk.f_frsize / kMega;
    const std::string what = FormatText("the disk of %s %s has %llu MB free", role, path.c_str(),
                                        static_cast<unsigned long long>(free));
    const std::string mend = "make room, or move the folder to a larger disk";
    if (free < static_cast<std::uint64_t>(least) / 5)
        report->Fail(what, mend);
    else if (free < static_cast<std::uint64_t>(least))
        report->Warn(what, mend);
    if (disk.f_files != 0 && disk.f_favail < kFewFiles)
        report->Warn(FormatText("the disk of %s %s has room for %llu files only", role,
                                path.c_str(), static_cast<unsigned long long>(disk.f_favail)),
                     "remove small files, or make a file system with more inodes");
}

bool HasMessages(const std::string& queue)
{
    std::error_code error;
    const std::filesystem::directory_iterator folder(queue + "/msg", error);
    return !error && folder != std::filesystem::directory_iterator();
}

void CheckHeld(const QueueOverview& overview, CheckReport* report)
{
    for (const ChannelOverview& one : overview.channels)
        if (one.channel == kHoldChannel)
            report->Warn(FormatText("%lld message(s) are held in channel dlhold",
                                    static_cast<long long>(one.waiting)),
                         "dlctl queue list dlhold, then dlctl queue release or remove each");
}

void CheckIndex(const std::string& queue, CheckReport* report)
{
    using State = QueueOverview::State;
    const QueueOverview overview = ReadQueueOverview(queue);
    switch (overview.state) {
        case State::kRead:
            return CheckHeld(overview, report);
        case State::kNoQueue:
            if (HasMessages(queue))
                report->Fail("the queue " + queue + " has message files and no index",
                             "put index.db back from the backup, or move the files of msg/ away "
                             "and hand them in again");
            return;  // the first program to come makes it
        case State::kNewer:
            report->Fail("the queue " + queue + ": " + overview.cause,
                         "install the newer version again, or bring back index.db from before the "
                         "upgrade and remove index.db-wal and index.db-shm");
            return;
        case State::kFailed:
            break;
    }
    if (access((queue + "/index.db").c_str(), R_OK) != 0 && errno == EACCES)
        report->CannotTell("the queue's index in " + queue + " may not be read",
                           "run this as root or as the service's user");
    else
        report->Fail("the queue " + queue + ": " + overview.cause,
                     "stop the programs and bring index.db back from the backup");
}

void CheckLogFile(CheckReport* report)
{
    const std::string file = Setting("Log", "File", "");
    if (!EqualNoCase(Setting("Log", "Target", "syslog"), "file") || file.empty())
        return;
    if (CheckFolder({"the log's folder", FolderOf(file), 0755, QueuePath()}, report) &&
        access(file.c_str(), F_OK) == 0 && access(file.c_str(), W_OK) != 0)
        report->Fail("the log " + file + " cannot be written",
                     "chown it to the service's user, mode 0640");
}

}  // namespace

void CheckDataAndQueue(const CheckOptions& options, CheckReport* report)
{
    const std::string data = DataPath();
    const std::string queue = QueuePath();
    // The queue's owner is the service's user: the folder is made by it, or for it.
    if (CheckFolder({"the queue folder", queue, 0700}, report)) {
        CheckIndex(queue, report);
        CheckRoom("the queue folder", queue, options.min_free, report);
    }
    if (!data.empty() && CheckFolder({"the data folder", data, 0750, queue}, report)) {
        CheckRoom("the data folder", data, options.min_free, report);
        if (access(data.c_str(), W_OK | X_OK) != 0)
            report->CannotTell("the data folder " + data + " may not be written by this user",
                               "run this as root or as the service's user");
        CheckDueFile({"archive index", IndexDuePath(),
                      Setting("DlManager", "ArchiveIndexFrequency", "Daily")},
                     report);
    }
    (void)CheckFolder(
        {"the run folder", Setting("Process", "RunDir", "/run/dlmanager"), 0755, queue, false},
        report);  // the service makes it when it may
    CheckLogFile(report);
}

void CheckService(CheckReport* report)
{
    MetricsSnapshot counts;
    if (RunningProcess("dl") != 0 && ReadMetrics(QueuePath(), "dlmanager", &counts) &&
        counts[Metric::kWaitsForDirectory] != 0)
        report->Fail("dlmanager found no directory when it started and stands idle",
                     "restart it once the directory answers (dlctl directory wait)");
}

void CheckRelay(CheckReport* report)
{
    smtp::Relay relay;
    relay.host = Setting("Relay", "Host", "127.0.0.1");
    relay.port = GetPrivateProfileInt("Relay", "Port", 25, kMainConfig);
    relay.socket = Setting("Relay", "Socket", "");
    relay.lmtp = EqualNoCase(Setting("Relay", "Protocol", "smtp"), "lmtp");
    relay.connect_timeout = kRelayBound;
    relay.answer_timeout = kRelayBound;
    const std::string name =
        relay.socket.empty() ? FormatText("%s:%d", relay.host.c_str(), relay.port) : relay.socket;
    smtp::Session session;
    std::string problem;
    if (session.Open(relay, &problem))
        session.Quit();
    else
        report->Fail("the relay " + name + " cannot be used: " + problem,
                     relay.socket.empty()
                         ? "start the mail server there, or correct Host and Port in section Relay"
                         : "start the mail server there, or correct Socket in section Relay");
}

}  // namespace dl
