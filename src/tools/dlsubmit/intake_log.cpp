#include "tools/dlsubmit/intake_log.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "platform/clock/clock.h"
#include "platform/config/config.h"

namespace dl
{
namespace
{

constexpr char kModule[] = "DL Intake";
constexpr int kTries = 100;  // of 5 ms: others write a line each

std::string Beside(const std::string& path, const char* name)
{
    return path.substr(0, path.rfind('/') + 1) + name;
}

// The turn of this process; negative when it does not come.
int TakeTurn(const std::string& path)
{
    const int fd = open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
    for (int tries = 0; fd >= 0 && tries < kTries; ++tries) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0)
            return fd;
        SleepFor(std::chrono::milliseconds(5));
    }
    if (fd >= 0)
        close(fd);
    return -1;
}

}  // namespace

LogSettings IntakeLog()
{
    LogSettings settings = ReadLogSettings();
    settings.path = GetPrivateProfileString(
        "Intake", "LogFile", Beside(settings.path, "dlsubmit.log"), 4096, kMainConfig);
    return settings;
}

void NotePipedMessage(const std::string& text)
{
    LogSettings settings = IntakeLog();
    int turn = -1;
    if (settings.target == LogSettings::Target::kStderr || settings.level < 3)
        return;
    if (settings.target == LogSettings::Target::kFile) {
        settings.path = Beside(settings.path, "dlsubmit-pipe.log");
        turn = TakeTurn(settings.path);
        if (turn < 0)
            return;
    }
    std::string error;
    if (OpenLog(settings, "dlsubmit", &error))
        LogMessage(3, kModule, text.c_str());
    CloseLog();
    if (turn >= 0)
        close(turn);
}

}  // namespace dl
