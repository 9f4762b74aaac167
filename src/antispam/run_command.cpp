#include "antispam/run_command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

#include "antispam/spam_log.h"

extern char** environ;

namespace dl
{
namespace
{

constexpr std::size_t kBlock = 1024;

class Descriptor
{
 public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() { Reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool IsOpen() const { return fd_ >= 0; }
    void Reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

 private:
    int fd_;
};

struct Pipe {
    Descriptor read_end;
    Descriptor write_end;

    // Neither end is one of the three standard descriptors, which the child gets anew.
    [[nodiscard]] bool Open()
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            return false;
        read_end.Reset(fds[0]);
        write_end.Reset(fds[1]);
        for (Descriptor* end : {&read_end, &write_end})
            if (end->get() <= STDERR_FILENO)
                end->Reset(fcntl(end->get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
        return read_end.IsOpen() && write_end.IsOpen();
    }
};

// Keeps a broken pipe from ending the process: the signal is blocked, and taken away when our write
// raised it.
class PipeSignalBlocked
{
 public:
    PipeSignalBlocked()
    {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
    }
    ~PipeSignalBlocked()
    {
        const timespec at_once{0, 0};
        if (!was_pending_)
            while (sigtimedwait(&pipe_, nullptr, &at_once) < 0 && errno == EINTR) {
            }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    PipeSignalBlocked(const PipeSignalBlocked&) = delete;
    PipeSignalBlocked& operator=(const PipeSignalBlocked&) = delete;

    [[nodiscard]] const sigset_t& Before() const { return before_; }

 private:
    sigset_t pipe_;
    sigset_t before_;
    bool was_pending_ = false;
};

// 0, or the error that kept the program from being started or executed.
int Start(const CommandLine& command, int input, int output, const sigset_t& mask, pid_t* child)
{
    std::vector<char*> words;
    for (const std::string& word : command.words)
        words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (const int number : {SIGPIPE, SIGINT, SIGTERM, SIGUSR1, SIGCHLD})
        sigaddset(&defaults, number);
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    posix_spawnattr_setsigmask(&attributes, &mask);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int error = posix_spawn(child, words[0], &actions, &attributes, words.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

// What the child has still to be given, block by block.
class Feeder
{
 public:
    // `file` is the message, not open when there is nothing to give.
    Feeder(Descriptor* file, Descriptor* to) : file_(file), to_(to)
    {
        if (!file_->IsOpen())
            to_->Reset();
        else
            fcntl(to_->get(), F_SETFL, O_NONBLOCK);  // our end only; a full pipe must not hold us
    }
    [[nodiscard]] bool ReadFailed() const { return read_failed_; }

    // Writes as much as the pipe takes; closes it at the end of the message or when nobody reads.
    void Continue()
    {
        if (at_ == have_) {
            const ssize_t got = read(file_->get(), block_, sizeof block_);
            if (got < 0 && errno == EINTR)
                return;
            read_failed_ = got < 0;
            if (got <= 0) {
                to_->Reset();
                return;
            }
            at_ = 0;
            have_ = static_cast<std::size_t>(got);
        }
        const ssize_t put = write(to_->get(), block_ + at_, have_ - at_);
        if (put >= 0)
            at_ += static_cast<std::size_t>(put);
        else if (errno != EINTR && errno != EAGAIN)
            to_->Reset();
    }

 private:
    Descriptor* file_;
    Descriptor* to_;
    char block_[kBlock];
    std::size_t at_ = 0;
    std::size_t have_ = 0;
    bool read_failed_ = false;
};

// Both ways at once: a program that writes before it has read all would else stop, and we with it.
bool Converse(Descriptor* message, Descriptor* to, Descriptor* from)
{
    Feeder feeder(message, to);
    char block[kBlock];
    while (to->IsOpen() || from->IsOpen()) {
        pollfd ends[2] = {{to->get(), POLLOUT, 0}, {from->get(), POLLIN, 0}};  // -1 is passed over
        if (poll(ends, 2, -1) < 0 && errno != EINTR)
            break;
        if (ends[1].revents != 0) {
            const ssize_t got = read(from->get(), block, sizeof block);
            if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN))
                from->Reset();
        }
        if (ends[0].revents != 0)
            feeder.Continue();
    }
    to->Reset();
    from->Reset();
    return !feeder.ReadFailed();
}

int WaitFor(pid_t child)
{
    int status = 0;
    pid_t ended = -1;
    do {
        ended = waitpid(child, &status, 0);
    } while (ended < 0 && errno == EINTR);
    if (ended == child && WIFEXITED(status))
        return WEXITSTATUS(status);
    BayesLog(1, "The program was ended by signal %d", ended == child ? WTERMSIG(status) : 0);
    return kEndedBySignal;
}

}  // namespace

int RunCommand(const CommandLine& command, const std::string& message)
{
    BayesLog(6, "Executing cmdline :%s", command.text.c_str());
    Descriptor file;
    if (command.feeds_message) {
        file.Reset(open(message.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file.IsOpen())
            return kMessageNotRead;
    }
    Pipe output;
    if (!output.Open())
        return kFirstPipeFailed;
    Pipe input;
    if (!input.Open())
        return kNotStarted;
    const PipeSignalBlocked blocked;
    pid_t child = -1;
    const int error =
        Start(command, input.read_end.get(), output.write_end.get(), blocked.Before(), &child);
    if (error == EAGAIN || error == ENOMEM)
        return kNotStarted;
    int code = kCannotExecute;
    if (error == 0) {
        input.read_end.Reset();
        output.write_end.Reset();
        const bool whole = Converse(&file, &input.write_end, &output.read_end);
        code = WaitFor(child);
        if (!whole)
            return kMessageNotRead;
    }
    if (code >= 0)
        BayesLog(6, "return code: %d", code);
    return code;
}

}  // namespace dl
