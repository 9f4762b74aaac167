// The clock: the only place that asks the system for the time.
//
// The service and its tools call Now() and SleepFor(); a test installs a clock of its own for as
// long as a ScopedClock lives, so that schedules, expiry and back-off are tested without waiting.
// Installing is for one thread at start or in a test fixture; Now() may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>

namespace dl
{

class Clock
{
 public:
    virtual ~Clock() = default;
    virtual std::time_t Now() = 0;
    virtual void SleepFor(std::chrono::milliseconds time) = 0;
};

// Seconds since 1970-01-01 UTC.
std::time_t Now();

// Seconds on a clock that nobody sets and that counts while the host sleeps; from any beginning. A
// ScopedClock is taken for such a one.
std::int64_t Uptime();

// Microseconds since 1970-01-01 UTC; always the system's, for identifiers that must differ.
std::int64_t NowMicroseconds();

// Returns after `time`, or earlier when a signal arrives.
void SleepFor(std::chrono::milliseconds time);

// Whether a ScopedClock lives: then nobody may wait for the system's time.
bool ClockIsReplaced();

// Puts `clock` in the system clock's place while it lives. Not nested.
class ScopedClock
{
 public:
    explicit ScopedClock(Clock* clock);
    ~ScopedClock();
    ScopedClock(const ScopedClock&) = delete;
    ScopedClock& operator=(const ScopedClock&) = delete;
};

}  // namespace dl
