#include "antispam/bayesian_filter.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "antispam/run_command.h"
#include "antispam/spam_log.h"
#include "platform/clock/clock.h"

namespace dl
{
namespace
{

std::string Database(const std::string& mailbox)
{
    return mailbox + "/.bayesian";
}

std::string LockPath(const std::string& mailbox)
{
    return mailbox + "/bayesian.lock";
}

// Whether `code` is one of the decimal numbers of a comma-separated list.
bool Holds(const std::string& list, int code)
{
    for (std::size_t from = 0; from < list.size();) {
        char* end = nullptr;
        const long number = std::strtol(list.c_str() + from, &end, 10);
        if (end != list.c_str() + from && number == code)
            return true;
        const std::size_t comma = list.find(',', from);
        from = comma == std::string::npos ? list.size() : comma + 1;
    }
    return false;
}

}  // namespace

Classification ClassifyExitCode(const BayesianFilterSettings& settings, int code)
{
    if (Holds(settings.ham_codes, code))
        return Classification::kHam;
    if (Holds(settings.spam_codes, code))
        return Classification::kSpam;
    if (Holds(settings.undetermined_codes, code))
        return Classification::kUndetermined;
    return Holds(settings.error_codes, code) ? Classification::kError : Classification::kHam;
}

BayesianFilter::BayesianFilter(BayesianFilterSettings settings)
    : settings_(std::move(settings)), usable_(settings_.type != BayesianType::kNone)
{
    if (settings_.type == BayesianType::kDll) {
        OpenLibrary();
        usable_ = library_ != nullptr;
    }
}

BayesianFilter::~BayesianFilter()
{
    if (library_)
        dlclose(library_);
}

void BayesianFilter::OpenLibrary()
{
    library_ = dlopen(settings_.library.c_str(), RTLD_NOW);
    if (!library_) {
        const char* reason = dlerror();
        BayesLog(1, "The classifier library %s cannot be loaded: %s", settings_.library.c_str(),
                 reason ? reason : "");
        return;
    }
    function_ = reinterpret_cast<ClassifierFunction>(dlsym(library_, settings_.function.c_str()));
    if (!function_)
        BayesLog(1, "The classifier library %s has no function %s", settings_.library.c_str(),
                 settings_.function.c_str());
}

Classification BayesianFilter::Classify(const std::string& sender, const std::string& recipient,
                                        const std::string& mailbox, const std::string& message,
                                        const std::string& output)
{
    if (settings_.type == BayesianType::kNone)
        return Classification::kNotUsable;
    const std::string database = Database(mailbox);
    if (settings_.type == BayesianType::kExe) {
        const auto command = BuildCommandLine(
            settings_.command_line,
            ClassificationPlaceholders(sender, recipient, database, message, output));
        const int code = command ? RunCommand(*command, message) : kNotStarted;
        return code < 0 ? Classification::kError : ClassifyExitCode(settings_, code);
    }
    if (!usable_) {
        OpenLibrary();
        usable_ = true;
    }
    if (!function_)
        return Classification::kError;
    const int code = function_(sender.c_str(), recipient.c_str(), database.c_str(), message.c_str(),
                               output.c_str());
    BayesLog(5, "Bayesian filter DLL return code: %d", code);
    return code >= 0 && code <= 2 ? static_cast<Classification>(code) : Classification::kError;
}

bool BayesianFilter::Learn(const std::string& command_line, const std::string& mailbox,
                           const std::string& message) const
{
    const auto command =
        BuildCommandLine(command_line, LearningPlaceholders(Database(mailbox), message));
    return command && RunCommand(*command, message) >= 0;
}

bool BayesianFilter::Lock(const std::string& mailbox) const
{
    const std::string path = LockPath(mailbox);
    const std::int64_t attempts = static_cast<std::int64_t>(settings_.time_out) * 60;
    for (std::int64_t i = 0; i < attempts; ++i) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IWUSR);
        if (fd >= 0) {
            close(fd);
            return true;
        }
        if (!LearnerRuns())
            return true;
        SleepFor(std::chrono::seconds(1));
    }
    return false;
}

void BayesianFilter::Unlock(const std::string& mailbox) const
{
    (void)unlink(LockPath(mailbox).c_str());  // it may not be there, see Lock
}

bool BayesianFilter::WritePidFile() const
{
    const auto id = static_cast<std::int32_t>(getpid());
    const int fd = open(settings_.pid_file.c_str(),
                        O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    const bool written = write(fd, &id, sizeof id) == static_cast<ssize_t>(sizeof id);
    if (close(fd) == 0 && written)
        return true;
    (void)unlink(settings_.pid_file.c_str());  // half a number would name another process
    return false;
}

bool BayesianFilter::LearnerRuns() const
{
    std::int32_t id = 0;
    const int fd = open(settings_.pid_file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool whole = read(fd, &id, sizeof id) == static_cast<ssize_t>(sizeof id);
    close(fd);
    // 0 and below name groups of processes.
    return whole && id > 0 && (kill(id, 0) == 0 || errno == EPERM);
}

}  // namespace dl
