// A program that a test starts, waits for and ends by its process id.
//
// It dies with the test, whatever becomes of that, and every wait has an end.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace dl::testing
{

class Child
{
 public:
    // Starts argv[0] (a full path) with its output, standard error included, going to file
    // `output`.
    Child(const std::vector<std::string>& argv, const std::string& output);
    ~Child();  // SIGKILL when it still runs
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    [[nodiscard]] pid_t Pid() const { return pid_; }
    [[nodiscard]] bool Running();
    void Signal(int number);
    void Stop();  // SIGSTOP; returns when it stands still
    // The exit status, or -1 when it was ended by a signal or, after `seconds`, by us.
    int Wait(int seconds = 30);

 private:
    pid_t pid_ = -1;  // -1: not running
    int status_ = -1;
};

// Runs a program to its end; its exit status as of Child::Wait, its output in `output` when that is
// given.
int RunProgram(const std::vector<std::string>& argv, std::string* output = nullptr);

// The same of dlctl, with the configuration of folder `conf`.
int RunDlctl(const std::string& conf, std::vector<std::string> arguments, std::string* output);

// Begins `deed` in a child process, which ends with its result; StatusOf waits for that: the exit
// status, or -signal when one ended it.
template <typename Deed>
[[nodiscard]] pid_t InBackground(Deed deed)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(static_cast<int>(deed()));
    return child;
}
[[nodiscard]] int StatusOf(pid_t child);
template <typename Deed>
[[nodiscard]] int InChild(Deed deed)
{
    return StatusOf(InBackground(deed));
}

}  // namespace dl::testing
