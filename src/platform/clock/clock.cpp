#include "platform/clock/clock.h"

#include <atomic>

namespace dl
{
namespace
{

std::atomic<Clock*> installed{nullptr};

}  // namespace

std::time_t Now()
{
    Clock* clock = installed.load();
    return clock ? clock->Now() : std::time(nullptr);
}

std::int64_t Uptime()
{
    if (Clock* clock = installed.load())
        return clock->Now();
    timespec now{};
    (void)clock_gettime(CLOCK_BOOTTIME, &now);  // there since Linux 2.6.39
    return now.tv_sec;
}

std::int64_t NowMicroseconds()
{
    using std::chrono::duration_cast;
    using std::chrono::microseconds;
    return duration_cast<microseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void SleepFor(std::chrono::milliseconds time)
{
    if (Clock* clock = installed.load()) {
        clock->SleepFor(time);
        return;
    }
    timespec wait{};
    wait.tv_sec = static_cast<std::time_t>(time.count() / 1000);
    wait.tv_nsec = static_cast<long>(time.count() % 1000) * 1'000'000L;
    (void)nanosleep(&wait, nullptr);  // a signal may shorten it; callers look at their flags then
}

bool ClockIsReplaced()
{
    return installed.load() != nullptr;
}

ScopedClock::ScopedClock(Clock* clock)
{
    installed.store(clock);
}

ScopedClock::~ScopedClock()
{
    installed.store(nullptr);
}

}  // namespace dl
