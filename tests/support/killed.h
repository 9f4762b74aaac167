// A deed that is killed in the middle, at many moments.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>

#include <gtest/gtest.h>

namespace dl::testing
{

// Runs `deed` in a child process again and again, killed a little later each time, over somewhat
// more than the time that it takes undisturbed. `prepare` comes before each run, `look` after it.
// Returns how many were killed before they were done. A deed may kill itself, too.
inline int KillAtEachMoment(int moments, const std::function<void()>& prepare,
                            const std::function<bool()>& deed, const std::function<void()>& look)
{
    using std::chrono::steady_clock;
    const auto start = [&] {
        const pid_t child = fork();
        if (child == 0)
            _exit(deed() ? 0 : 1);
        return child;
    };
    const auto killed = [](pid_t child) {
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 0) << "the deed failed";
        return WIFSIGNALED(status);
    };
    prepare();
    const auto begin = steady_clock::now();
    int count = killed(start()) ? 1 : 0;
    const auto whole = steady_clock::now() - begin;
    look();
    for (int i = 0; i < moments && !::testing::Test::HasFailure(); ++i) {
        SCOPED_TRACE(i);
        prepare();
        const pid_t child = start();
        const auto moment = whole * i * 11 / (moments * 10);
        usleep(static_cast<useconds_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(moment).count()));
        kill(child, SIGKILL);
        count += killed(child) ? 1 : 0;
        look();
    }
    return count;
}

}  // namespace dl::testing
