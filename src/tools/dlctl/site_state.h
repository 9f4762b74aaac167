// What the programs of this host are doing, as far as it can be seen without asking them: process
// files, metrics files, the queue's index and the lists' digest files. Nothing here changes
// anything or needs the directory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/metrics/metrics.h"
#include "platform/queue/queue.h"

namespace dl
{

struct ProgramState {
    std::string name;
    long pid = 0;          // 0: it does not run
    bool counted = false;  // there is a metrics file
    MetricsSnapshot metrics;
};

struct DigestDue {
    std::string list;
    std::int64_t due = 0;  // seconds since 1970-01-01 UTC
};

struct SiteState {
    std::int64_t now = 0;
    ProgramState manager;
    ProgramState sender;
    ProgramState intake;  // as a server; called for each message it is no process to be seen
    // Whether the service found no directory when it started: it idles until it is started again.
    [[nodiscard]] bool WaitsForDirectory() const
    {
        return manager.pid != 0 && manager.metrics[Metric::kWaitsForDirectory] != 0;
    }
    // Whether the intake is, or was, a server on this host.
    [[nodiscard]] bool HasIntakeServer() const
    {
        return intake.pid != 0 || intake.metrics[Metric::kStartedAt] != 0;
    }
    QueueOverview queue;
    std::vector<DigestDue> digests;  // the next ones first
};

[[nodiscard]] SiteState ReadSiteState();

// "2026-11-21T10:00:00Z"; empty for 0.
[[nodiscard]] std::string UtcText(std::int64_t seconds);
// "5 s", "3 min", "2 h", "4 days".
[[nodiscard]] std::string SpanText(std::int64_t seconds);

}  // namespace dl
