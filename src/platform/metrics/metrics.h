// Metrics: what a program has done, counted in a small file that outlives it.
//
// Each long-running program has one file, "<folder>/<program>.metrics", mapped into its memory: an
// increment is one atomic addition, and what was counted survives a restart and a kill. A power
// loss may take the last seconds. Before OpenMetrics, and when the file cannot be used, counts go
// to plain memory: metrics never stop mail. A file of another size, name or format is replaced by
// an empty one (logged at level 1). Several processes of a program share its file. Count and
// SetGauge may be called from any thread; OpenMetrics by the main thread, after the last fork.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace dl
{

// The numbers are places in the file: new ones go to the end, none is ever used again.
enum class Metric : std::uint32_t {
    kStartedAt,  // seconds since 1970-01-01 UTC
    // dlmanager
    kMessages,           // taken off the input channel
    kPostings,           // that came to a list
    kPostingsDelivered,  // to the immediate members
    kDeliveries,         // one for each member
    kForwarded,          // to a list's owner
    kBouncedUnknownAddress,
    kBouncedBlocked,
    kBouncedNotMember,
    kBouncedUnknownCommand,
    kBouncedNotRewritten,
    kRefusedBlocked,
    kRefusedNotMember,
    kRefusedSpamDiscarded,
    kRefusedSpamBounced,
    kRefusedUnusableList,
    kRequestSubscribe,
    kRequestUnsubscribe,
    kRequestArchive,
    kRequestUnknown,
    kConfirmedSubscribe,
    kConfirmedUnsubscribe,
    kConfirmedArchive,
    kHeld,  // moved to "dlhold", by any program
    kDigests,
    kDigestDeliveries,
    kRefreshes,
    kRefreshesFailed,
    kLastRefresh,  // seconds since 1970-01-01 UTC
    kLists,
    kMembers,
    // dlsend
    kRelayDelivered,  // recipients
    kRelayRefused,    // recipients, for good
    kRelayLater,      // recipients, for now: one for each try
    kRelayUnknown,    // recipients without an answer
    kRelayGivenUp,    // recipients
    kRelayReports,    // delivery reports to senders
    kRelayConnectFailed,
    kRelayUp,  // 1, or 0 while it cannot be used
    // dlsubmit
    kIntakeAccepted,       // messages
    kIntakeRecipients,     // of them
    kIntakeRefused,        // messages or recipients, for good
    kIntakeRefusedForNow,  // the same, to be tried again
    kErrors,               // level 1 lines of the log
    kWaitsForDirectory,    // dlmanager: 1 while it idles because its first load found no directory
    kEnd
};

inline constexpr std::size_t kMetricCount = static_cast<std::size_t>(Metric::kEnd);

void Count(Metric metric, std::uint64_t by = 1);
void SetGauge(Metric metric, std::int64_t value);

// Uses the file of `program` in `folder`, which must be there, and keeps the text of each level 1
// line as the last error. False, logged at level 1 for all but a missing folder, when it cannot be
// used. What was counted before is added.
bool OpenMetrics(const std::string& folder, const std::string& program);
// Sets kStartedAt to now.
void MarkStart();
// Back to plain memory, with nothing counted; for tests.
void CloseMetrics();

struct MetricsSnapshot {
    std::array<std::uint64_t, kMetricCount> values{};
    std::string last_error;  // one line; empty: none
    std::int64_t last_error_at = 0;

    [[nodiscard]] std::int64_t operator[](Metric metric) const
    {
        return static_cast<std::int64_t>(values[static_cast<std::size_t>(metric)]);
    }
};
// For tools. False, and `snapshot` empty, when there is no such file, or none of this format.
[[nodiscard]] bool ReadMetrics(const std::string& folder, const std::string& program,
                               MetricsSnapshot* snapshot);
[[nodiscard]] std::string MetricsPath(const std::string& folder, const std::string& program);

}  // namespace dl
