#include "platform/process/process.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

#include "platform/process/run_file.h"

namespace dl
{
namespace
{

constexpr std::array kSignals = {SIGINT, SIGTERM, SIGUSR1};

// What this process claimed. The handler reads the name and the status file, so they are plain
// memory and an atomic.
struct Claim {
    pid_t process = 0;  // who claimed; a child after fork has the memory but not the claim
    int pid_file = -1;
    std::string pid_path;
    std::string status_path;
};

Claim& TheClaim()
{
    static Claim& claim = *new Claim;  // signals may come until the very end
    return claim;
}

std::array<char, process::kMaxNameBytes + 1> claimed_name{};
std::atomic<int> status_file{-1};
std::atomic<SignalFunction> signal_function{nullptr};

void OnSignal(int signal)
{
    const int before = errno;
    if (const SignalFunction function = signal_function.load())
        (void)function(signal);  // its result has no reader
    errno = before;
}

sigset_t OurSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : kSignals)
        sigaddset(&set, signal);
    return set;
}

void InstallHandler(SignalFunction handler)
{
    signal_function.store(handler);
    struct sigaction action = {};
    action.sa_handler = OnSignal;
    action.sa_mask = OurSignals();
    action.sa_flags = SA_RESTART;  // the pass over the queue ends first; libraries never see EINTR
    for (const int signal : kSignals)
        (void)sigaction(signal, &action, nullptr);
}

bool Claimed(const char* name)
{
    return name && TheClaim().process == getpid() && std::strcmp(name, claimed_name.data()) == 0;
}

ProcessInfo Failed(const std::string& path, int error)
{
    return {Registration::kFailed,
            "cannot write " + path + ": " + std::generic_category().message(error)};
}

ProcessInfo Running(const char* name, pid_t holder)
{
    return {Registration::kAlreadyRunning,
            "process " + std::to_string(holder) + " runs under the name \"" + name + "\" already"};
}

// Closes what a parent claimed: the memory came with fork, the lock did not.
void DropInheritedClaim()
{
    Claim& claim = TheClaim();
    if (claim.process == 0 || claim.process == getpid())
        return;
    close(claim.pid_file);
    close(status_file.exchange(-1));
    claim = {};
}

ProcessInfo Register(const char* name)
{
    if (!process::IsProcessName(name))
        return {Registration::kFailed, "no name for a process: letters, digits, '-' and '_' are"};
    DropInheritedClaim();
    Claim& claim = TheClaim();
    if (claim.process != 0)
        return Running(claimed_name.data(), claim.process);
    process::MakeRunFolder();
    const std::string pid_path = process::RunPath(name, ".pid");
    const process::PidFile taken = process::TakePidFile(pid_path);
    if (taken.held)
        return Running(name, taken.holder);
    if (taken.file < 0)
        return Failed(pid_path, taken.error);
    const std::string status_path = process::RunPath(name, ".status");
    const int status = open(status_path.c_str(),
                            O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644);
    if (status < 0) {
        const int error = errno;
        (void)unlink(pid_path.c_str());
        close(taken.file);
        return Failed(status_path, error);
    }
    claim = {getpid(), taken.file, pid_path, status_path};
    std::memcpy(claimed_name.data(), name, std::strlen(name) + 1);  // IsProcessName bounds it
    status_file.store(status);
    return {Registration::kDone, {}};
}

}  // namespace

ProcessInfo InitProcessInfo(const char* name, SignalFunction handler)
{
    ProcessInfo info = Register(name);
    // A service that goes on without its files must still be stopped in good order.
    if (info.result != Registration::kAlreadyRunning)
        InstallHandler(handler);
    return info;
}

int WriteProcessStatus(const char* name, const char* status)
{
    const int file = status_file.load();
    if (file < 0 || !name || !status || std::strcmp(name, claimed_name.data()) != 0)
        return -1;
    sigset_t before;
    const sigset_t ours = OurSignals();
    pthread_sigmask(SIG_BLOCK, &ours, &before);  // the handler must not write in the middle of this
    const bool done = process::WriteStatusLine(file, status);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return done ? 0 : -1;
}

void RemoveProcessInfo(const char* name)
{
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    if (signal_function.exchange(nullptr))
        for (const int signal : kSignals)
            (void)sigaction(signal, &action, nullptr);
    if (!Claimed(name))
        return;
    Claim& claim = TheClaim();
    // The pid file goes last and its lock after it: until then no other start gets as far as a
    // status file.
    (void)unlink(claim.status_path.c_str());
    (void)unlink(claim.pid_path.c_str());
    close(status_file.exchange(-1));
    close(claim.pid_file);
    claim = {};
    claimed_name[0] = '\0';
}

void HoldStandardStreams()
{
    for (int stream = 0; stream <= 2; ++stream)
        if (fcntl(stream, F_GETFD) < 0)
            (void)open("/dev/null", O_WRONLY);  // it gets the lowest free number, which is this
}

long RunningProcess(const char* name)
{
    if (Claimed(name))
        return getpid();  // without opening the file: closing it again would drop our lock
    return process::IsProcessName(name) ? process::HolderOf(process::RunPath(name, ".pid")) : 0;
}

std::string ProcessStatus(const char* name)
{
    if (RunningProcess(name) == 0)
        return {};
    return process::ReadFirstLine(process::RunPath(name, ".status"));
}

}  // namespace dl
