// What dlctl check says of the files that hold due moments.

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "platform/address/address.h"
#include "platform/clock/clock.h"
#include "tools/dlctl/check.h"

namespace dl
{
namespace
{

constexpr std::int64_t kDay = 86'400;

// The farthest that a next moment can be, an hour that the clock was set included.
std::int64_t LongestWait(const std::string& frequency)
{
    if (EqualNoCase(frequency, "monthly"))
        return 63 * kDay;
    return EqualNoCase(frequency, "weekly") ? 9 * kDay : 3 * kDay;
}

}  // namespace

void CheckDueFile(const DueRule& rule, CheckReport* report)
{
    const std::string file = std::string("the ") + rule.job + " file " + rule.path;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(std::fopen(rule.path.c_str(), "rb"),
                                                             std::fclose);
    if (!in) {
        if (errno != ENOENT)  // the service makes it at the next refresh
            report->CannotTell(file + " may not be read",
                               "run this as root or as the service's user; else chown it to that");
        return;
    }
    long due = 0;
    if (std::fscanf(in.get(), "%ld", &due) != 1 || due < 0)
        report->Warn(file + " holds no moment: the " + rule.job + " is due at once",
                     "remove the file, the service makes a new one at the next refresh");
    else if (due - static_cast<std::int64_t>(Now()) > LongestWait(rule.frequency))
        report->Warn(file + " holds a moment farther off than its schedule",
                     "start the service, which sets it right, or remove the file");
}

}  // namespace dl
