#include "tools/dlsubmit/lmtp_intake.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include "platform/config/config.h"
#include "platform/log/log.h"
#include "platform/metrics/metrics.h"
#include "platform/process/process.h"
#include "platform/process/user.h"
#include "platform/queue/queue.h"
#include "tools/dlsubmit/intake_log.h"
#include "tools/dlsubmit/lmtp_listener.h"
#include "tools/dlsubmit/lmtp_server.h"

namespace dl
{
namespace
{

using Listeners = std::vector<std::unique_ptr<Listener>>;

constexpr char kModule[] = "DL Intake";
constexpr char kName[] = "dlsubmit";  // of its log, process and metrics files
constexpr char kSection[] = "Intake";

LmtpServer* running = nullptr;

int OnSignal(int signal)
{
    if (signal == SIGUSR1)
        return WriteProcessStatus(kName, "Running");
    running->Stop();
    return 0;
}

int Setting(const char* key, int fallback, int most)
{
    const int value = GetPrivateProfileInt(kSection, key, fallback, kMainConfig);
    return value < 1 ? fallback : std::min(value, most);
}

std::string HostName()
{
    const auto text = [](const char* key) {
        return GetPrivateProfileString("Connection", key, "", 128, kMainConfig);
    };
    const std::string host = text("GatewayHostName");
    const std::string domain = text("GatewayDomain");
    if (!host.empty() && !domain.empty())
        return host + "." + domain;
    char own[256] = "localhost";
    (void)gethostname(own, sizeof own - 1);  // what it cannot tell stays as it is
    return host.empty() ? own : host;
}

// HasMQRoomFor, and a line at most once a minute while there is none.
std::function<bool(std::uint64_t)> RoomCheck()
{
    using Steady = std::chrono::steady_clock;
    return [say_again = Steady::time_point()](std::uint64_t bytes) mutable {
        if (HasMQRoomFor(static_cast<std::int64_t>(bytes)))
            return true;
        if (const auto now = Steady::now(); now >= say_again) {
            LogMessage(1, kModule,
                       "The disk of the queue is full, clients are told to try again later");
            say_again = now + std::chrono::minutes(1);
        }
        return false;
    };
}

LmtpSettings ReadSettings(const std::string& channel)
{
    LmtpSettings settings;
    settings.limits.host = HostName();
    settings.limits.max_message_bytes =
        static_cast<std::uint64_t>(Setting("MaxMessageBytes", 50 * 1024 * 1024, 1 << 30));
    settings.limits.has_room = RoomCheck();
    settings.limits.max_recipients =
        static_cast<std::size_t>(Setting("MaxRecipients", 100'000, 1'000'000));
    settings.max_connections = static_cast<std::size_t>(Setting("MaxConnections", 100, 5'000));
    settings.idle_time_out = std::chrono::seconds(Setting("IdleTimeOut", 300, 86'400));
    settings.channel = channel;
    return settings;
}

mode_t SocketMode()
{
    const std::string text = GetPrivateProfileString(kSection, "SocketMode", "", 16, kMainConfig);
    char* end = nullptr;
    const unsigned long mode = std::strtoul(text.c_str(), &end, 8);
    return text.empty() || *end != '\0' || mode > 0777 ? 0660 : static_cast<mode_t>(mode);
}

int Refuse(int code, const std::string& error)
{
    LogMessage(1, kModule, error.c_str());
    return code;
}

bool DropRoot(const Listeners& listeners, std::string* error)
{
    const std::string user = GetPrivateProfileString(kSection, "User", "", 64, kMainConfig);
    if (geteuid() != 0 || user.empty())
        return true;
    const uid_t number = UserNumber(user);
    for (const auto& listener : listeners) {
        if (number != static_cast<uid_t>(-1) && !listener->GiveTo(number)) {
            *error = listener->Name() + " cannot be given to " + user;
            return false;
        }
    }
    return BecomeUser(user, error);
}

// Each client has a socket and a file.
void RaiseFileLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);  // when refused, the old one stands
}

// Shows that it runs, and takes the signals. A host may have several intakes, each on a socket of
// its own: those behind the first only go without a file.
void Register()
{
    const ProcessInfo registered = InitProcessInfo(kName, OnSignal);
    if (registered.result == Registration::kAlreadyRunning) {
        for (const int signal : {SIGTERM, SIGINT, SIGUSR1})
            (void)std::signal(signal, [](int number) { (void)OnSignal(number); });
        LogMessage(
            5, kModule,
            ("Serving beside another intake, whose state is shown: " + registered.reason).c_str());
    } else if (registered.result != Registration::kDone) {
        LogMessage(1, kModule, registered.reason.c_str());
    }
    (void)WriteProcessStatus(kName, "Running");  // only what a tool shows depends on it
}

void Unregister()
{
    RemoveProcessInfo(kName);
    for (const int signal : {SIGTERM, SIGINT, SIGUSR1})
        (void)std::signal(signal, SIG_IGN);
}

void Serve(const std::string& channel, Listeners listeners)
{
    for (const auto& listener : listeners)
        LogMessage(5, kModule, ("Listening on " + listener->Name()).c_str());
    LmtpServer server(ReadSettings(channel), std::move(listeners));
    running = &server;
    Register();
    (void)std::signal(SIGPIPE, SIG_IGN);  // of the log's standard error
    NotifyServiceManager("READY=1");
    server.Run();
    NotifyServiceManager("STOPPING=1");
    Unregister();
    LogMessage(5, kModule, "Terminating");
}

}  // namespace

int RunLmtpIntake(const std::vector<std::string>& listen, const std::string& channel)
{
    std::string error;
    Listeners listeners;
    for (const std::string& where : listen) {
        listeners.push_back(Listener::Open(where, SocketMode(), &error));
        if (!listeners.back())
            return Refuse(EX_UNAVAILABLE, "Cannot listen on " + error);
    }
    if (!DropRoot(listeners, &error))
        return Refuse(EX_NOUSER, "Cannot become user " + error);
    SetConfigReporter([](const std::string& problem) { LogMessage(1, kModule, problem.c_str()); });
    if (!OpenLog(IntakeLog(), kName, &error))
        LogMessage(1, kModule,
                   ("The log cannot be opened, using standard error: " + error).c_str());
    if (geteuid() == 0)
        LogMessage(5, kModule, "Serving as root: Intake/User is not set");
    RaiseFileLimit();
    // Its cause is in the log.
    const bool opened = MQInit("", kModule);
    if (opened) {
        (void)OpenMetrics(QueuePath(), kName);  // it has logged; mail goes on without
        MarkStart();
    }
    if (opened)
        Serve(channel, std::move(listeners));
    MQEnd();
    CloseLog();
    return opened ? EX_OK : EX_TEMPFAIL;
}

}  // namespace dl
