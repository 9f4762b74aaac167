// Section Relay of "qvms.conf", and when an entry is tried again. Read once, at start.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/queue/queue.h"
#include "platform/smtp/session.h"

namespace dl
{

struct RelaySettings {
    smtp::Relay relay;
    std::string channel = kOutputChannel;
    std::string host_name;             // this host in reports; may be "localhost"
    std::size_t max_recipients = 100;  // of a transaction
    int connections = 4;
    std::int64_t give_up_after = 432'000;  // seconds from the entry's arrival in the queue
    std::int64_t retry_min = 60;           // seconds
    std::int64_t retry_max = 3600;
};

// Values that make no sense are replaced by the nearest that do.
[[nodiscard]] RelaySettings ReadRelaySettings();

// The relay as log lines and reports name it: "127.0.0.1:25", or the socket's path.
[[nodiscard]] std::string RelayName(const smtp::Relay& relay);

// Seconds until the next try after `tries` earlier ones: retry_min, doubled each time, at most
// retry_max; `random` spreads it by a quarter either way.
[[nodiscard]] std::int64_t RetryDelay(const RelaySettings& settings, int tries,
                                      std::uint32_t random);
// The longest that it gives.
[[nodiscard]] std::int64_t LongestRetryDelay(const RelaySettings& settings);

}  // namespace dl
