#include "tests/support/child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "tests/support/fixture.h"

namespace dl::testing
{

Child::Child(const std::vector<std::string>& argv, const std::string& output)
{
    std::vector<char*> words;
    for (const std::string& word : argv)
        words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    pid_ = fork();
    if (pid_ != 0)
        return;
    // Nothing but system calls between fork and exec: the test may have threads.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit files{1024,
                       1024};  // some servers make room for as many connections as they may have
    setrlimit(RLIMIT_NOFILE, &files);
    const int in = open("/dev/null", O_RDONLY);
    const int out = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(in, 0);
    dup2(out, 1);
    dup2(out, 2);
    execv(words[0], words.data());
    _exit(127);
}

Child::~Child()
{
    if (!Running())
        return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

bool Child::Running()
{
    if (pid_ < 0)
        return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == 0)
        return true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    pid_ = -1;
    return false;
}

void Child::Signal(int number)
{
    if (Running())
        kill(pid_, number);
}

void Child::Stop()
{
    if (!Running())
        return;
    kill(pid_, SIGSTOP);
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(pid_), &info, WSTOPPED | WEXITED | WNOWAIT);
}

int Child::Wait(int seconds)
{
    for (int left = seconds * 200; left > 0 && Running(); left--)
        usleep(5000);
    if (Running()) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    return status_;
}

int RunProgram(const std::vector<std::string>& argv, std::string* output)
{
    char name[] = "/tmp/dlrun.XXXXXX";
    close(mkstemp(name));
    const int status = Child(argv, name).Wait();
    if (output)
        *output = ReadFile(name);
    unlink(name);
    return status;
}

int RunDlctl(const std::string& conf, std::vector<std::string> arguments, std::string* output)
{
    arguments.insert(arguments.begin(), {DL_BINARY "/bin/dlctl", "--conf", conf});
    return RunProgram(arguments, output);
}

int StatusOf(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace dl::testing
