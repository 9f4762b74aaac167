// A deed that is killed in the middle, at many moments.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>

#include <gtest/gtest.h>

namespace dl::testing
{

// Puts the index `kept` in place of the file `index`, with nothing of a migration beside it.
inline void PutIndexBack(const std::string& kept, const std::string& index)
{
    for (const char* end :
         {"", "-wal", "-shm", ".format-1", ".format-1.part", ".format-2", ".format-2.part"})
        std::filesystem::remove(index + end);
    std::filesystem::copy_file(kept, index);
}

struct KilledDeed {
    std::function<void()> prepare;  // comes before each run
    std::function<bool()> deed;     // in a child process; it may kill itself, too
    std::function<void()> look;     // after each run
    // Where the moments begin; none: with the deed.
    std::function<bool()> from = [] { return true; };
};

// Runs the deed once undisturbed, then again and again, killed a little later each time, up to
// somewhat more than the time that it took. Returns how many runs were killed before they were
// done.
inline int KillAtEachMoment(int moments, const KilledDeed& what)
{
    using std::chrono::steady_clock;
    int count = 0;
    steady_clock::duration whole{};
    for (int i = -1; i < moments && !::testing::Test::HasFailure(); ++i) {
        SCOPED_TRACE(i);
        what.prepare();
        const auto patience = steady_clock::now() + std::chrono::seconds(30);
        const pid_t child = fork();
        if (child == 0)
            _exit(what.deed() ? 0 : 1);
        siginfo_t ended{};
        while (!what.from() && ended.si_pid == 0 && steady_clock::now() < patience) {
            usleep(200);
            (void)waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT);
        }
        const auto begin = steady_clock::now();
        if (i >= 0) {
            const auto wait = std::chrono::duration_cast<std::chrono::microseconds>(whole) * i *
                              11 / (moments * 10);
            usleep(static_cast<useconds_t>(wait.count()));
            kill(child, SIGKILL);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0) << "the deed failed";
        count += WIFSIGNALED(status) ? 1 : 0;
        if (i < 0)
            whole = steady_clock::now() - begin;
        what.look();
    }
    return count;
}

}  // namespace dl::testing
