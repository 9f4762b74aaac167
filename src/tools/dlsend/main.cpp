// dlsend: hands what the list manager has put into channel "dlout" over to the mail relay.

#include <getopt.h>
#include <sysexits.h>

#include <atomic>
#include <csignal>
#include <cstdio>

#include "platform/clock/clock.h"
#include "platform/config/config.h"
#include "platform/log/log.h"
#include "platform/metrics/metrics.h"
#include "platform/process/process.h"
#include "tools/dlsend/handover.h"

namespace
{

constexpr char kName[] = "dlsend";
constexpr char kUsage[] =
    "usage: dlsend [--once]\n"
    "\n"
    "Hands the messages of channel dlout over to the relay of section Relay in qvms.conf, in the\n"
    "foreground, until SIGTERM.\n"
    "  --once  ends when nothing is due any more; logs to standard error\n"
    "Exit status: 0 done, and with --once nothing is left; 64 wrong usage; 69 the queue cannot be\n"
    "used, or dlsend runs already; 75 with --once: something waits for another try.\n";

std::atomic<bool> stop_requested{false};
static_assert(std::atomic<bool>::is_always_lock_free);

int OnSignal(int signal)
{
    if (signal == SIGUSR1)
        return dl::WriteProcessStatus(kName, "Running");
    stop_requested.store(true);
    return 0;
}

void OpenOwnLog(bool once)
{
    dl::LogSettings settings = dl::ReadLogSettings();
    // One process writes a file: this one's lies beside the service's.
    if (settings.target == dl::LogSettings::Target::kFile)
        settings.path = dl::GetPrivateProfileString(
            "Relay", "LogFile",
            settings.path.substr(0, settings.path.rfind('/') + 1) + "dlsend.log", 4096,
            dl::kMainConfig);
    if (once)
        settings.target = dl::LogSettings::Target::kStderr;
    std::string error;
    if (!dl::OpenLog(settings, kName, &error))
        dl::SendLog(1, "The log cannot be opened, using standard error: %s", error.c_str());
}

int Run(bool once)
{
    const dl::RelaySettings settings = dl::ReadRelaySettings();
    if (!dl::MQInit("", "DL Send"))
        return EX_UNAVAILABLE;
    // Without it the program works all the same, and has said why.
    (void)dl::OpenMetrics(dl::QueuePath(), kName);
    if (!once)
        dl::MarkStart();
    const auto channel =
        dl::DeliveryChannel::Open(settings.channel, dl::LongestRetryDelay(settings));
    if (!channel)
        return EX_UNAVAILABLE;
    if (!once) {
        (void)dl::WriteProcessStatus(kName, "Running");  // only what a tool shows depends on it
        dl::NotifyServiceManager("READY=1");
        dl::SendLog(5, "Handing channel %s over to %s", settings.channel.c_str(),
                    dl::RelayName(settings.relay).c_str());
    }
    dl::FlushLog();
    dl::Handover(settings, channel.get(), &stop_requested).Run(once);
    if (!once) {
        dl::NotifyServiceManager("STOPPING=1");
        dl::SendLog(5, "Terminating");
        return EX_OK;
    }
    std::int64_t due = 0;
    return channel->Waiting(&due) == dl::QueueAnswer::kNo ? EX_OK : EX_TEMPFAIL;
}

}  // namespace

int main(int argc, char** argv)
{
    static const option kOptions[] = {{"once", no_argument, nullptr, 'o'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {"version", no_argument, nullptr, 'v'},
                                      {nullptr, 0, nullptr, 0}};
    dl::HoldStandardStreams();
    bool once = false;
    for (int c = 0; (c = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
        switch (c) {
            case 'o':
                once = true;
                break;
            case 'h':
                std::fputs(kUsage, stdout);
                return EX_OK;
            case 'v':
                std::puts("dlsend " DL_VERSION);
                return EX_OK;
            default:
                std::fputs(kUsage, stderr);
                return EX_USAGE;
        }
    }
    if (optind != argc) {
        std::fputs(kUsage, stderr);
        return EX_USAGE;
    }
    dl::SetConfigReporter(
        [](const std::string& problem) { dl::SendLog(1, "%s", problem.c_str()); });
    OpenOwnLog(once);
    if (once) {
        std::signal(SIGTERM, [](int signal) { (void)OnSignal(signal); });
        std::signal(SIGINT, [](int signal) { (void)OnSignal(signal); });
    } else {
        const dl::ProcessInfo registered = dl::InitProcessInfo(kName, OnSignal);
        if (registered.result != dl::Registration::kDone)
            dl::SendLog(1, "%s", registered.reason.c_str());
        if (registered.result == dl::Registration::kAlreadyRunning)
            return EX_UNAVAILABLE;
    }
    const int status = Run(once);
    if (!once)
        dl::RemoveProcessInfo(kName);
    dl::CloseLog();
    return status;
}
