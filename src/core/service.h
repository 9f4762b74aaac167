// The service: start-up, the main loop with its timers, signals, and the orderly end.
//
// One thread. The signal handler only stores a byte or writes a status record; a signal that stops
// the service lets the pass over the queue that is going on end first.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "platform/files/files.h"
#include "platform/queue/queue.h"

namespace dl
{

inline constexpr char kProcessName[] = "dl";

// SIGUSR1: writes the status "Running" and returns that call's result. SIGINT, SIGTERM: the service
// stops. Any other number is returned.
int SignalHandler(int signal);

// Minutes between refreshes, "DlManager"/"CacheRefreshInterval"; 5 and less give 15.
[[nodiscard]] int RefreshInterval();

// Puts "Gateway"/"TimeZone" into the environment as TZ, unless it is empty or begins with "xxx"
// (any case).
void SetTimeZone();

class Service
{
 public:
    // From after the fork to the end. 0 after an orderly stop, 1 when the service cannot start.
    [[nodiscard]] int Run();

 private:
    [[nodiscard]] bool Start();
    void Loop();
    // One turn of the loop; false when the loop is to be left.
    [[nodiscard]] bool Turn();
    void RefreshWhenDue();
    void RunSchedules();
    void TellThatItEnds();
    void Stop();

    MQContext* channel_ = nullptr;
    std::int64_t interval_ = 900;    // of refreshes, seconds
    std::int64_t next_refresh_ = 0;  // of Uptime
    int refresh_pause_ = 0;          // seconds, while refreshes fail
    std::time_t last_schedules_ = 0;
    std::time_t last_told_ = 0;
    StringChain processed_recipients_;
};

}  // namespace dl
