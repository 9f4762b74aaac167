// Counts that outlive the program, and files that are none.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include "platform/log/log.h"
#include "platform/metrics/metrics.h"
#include "tests/support/child.h"
#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

class Metrics : public Fixture
{
 protected:
    Metrics() { std::filesystem::create_directory(folder); }
    ~Metrics() override { CloseMetrics(); }
    [[nodiscard]] MetricsSnapshot Read() const
    {
        MetricsSnapshot snapshot;
        EXPECT_TRUE(ReadMetrics(folder, "dlmanager", &snapshot));
        return snapshot;
    }
    const std::string folder = Path("queue");
};

TEST_F(Metrics, CountsSurviveARestartAndAKill)
{
    Count(Metric::kPostings, 2);  // before the file is there
    ASSERT_TRUE(OpenMetrics(folder, "dlmanager"));
    Count(Metric::kPostings);
    MarkStart();
    CloseMetrics();
    const auto count_and_die = [&] {
        (void)OpenMetrics(folder, "dlmanager");
        Count(Metric::kPostings, 10);
        LogMessage(1, "DL", "it broke\r\n0 forged");
        return raise(SIGKILL);
    };
    EXPECT_EQ(InChild(count_and_die), -SIGKILL);
    const MetricsSnapshot seen = Read();
    EXPECT_EQ(seen[Metric::kPostings], 13);
    EXPECT_EQ(seen[Metric::kStartedAt], clock.now);
    EXPECT_EQ(seen[Metric::kErrors], 1);
    EXPECT_EQ(seen.last_error, "it broke\\r\\n0 forged");
    EXPECT_EQ(seen.last_error_at, clock.now);
    MetricsSnapshot none;
    EXPECT_FALSE(ReadMetrics(folder, "dlsend", &none));
}

TEST_F(Metrics, WhatIsNoMetricsFileGivesWay)
{
    const std::string path = MetricsPath(folder, "dlmanager");
    ASSERT_TRUE(OpenMetrics(folder, "dlmanager"));
    CloseMetrics();
    const std::string whole = ReadFile(path);
    const struct {
        const char* name;
        std::string bytes;
    } rows[] = {
        {"empty", ""},
        {"torn", whole.substr(0, whole.size() / 2)},
        {"longer", whole + "x"},
        {"another program's", std::string(whole.size(), 'x')},
        {"another format", whole.substr(0, 8) + "\x7f" + whole.substr(9)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Write("queue/dlmanager.metrics", row.bytes);
        MetricsSnapshot none;
        EXPECT_FALSE(ReadMetrics(folder, "dlmanager", &none));
        log.ExpectError(path + " is no metrics file of this program");
        EXPECT_TRUE(OpenMetrics(folder, "dlmanager"));
        Count(Metric::kHeld);
        EXPECT_EQ(Read()[Metric::kHeld], 1);
        CloseMetrics();
    }
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    log.ExpectError(path + " cannot be used: Is a directory");
    EXPECT_FALSE(OpenMetrics(folder, "dlmanager"));
    Count(Metric::kHeld);  // goes on
}

TEST_F(Metrics, ManyThreadsCountQuickly)
{
    constexpr int kEach = 1'000'000;
    ASSERT_TRUE(OpenMetrics(folder, "dlmanager"));
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kEach; ++i)
        Count(Metric::kDeliveries);
    const std::chrono::duration<double, std::nano> alone = std::chrono::steady_clock::now() - begin;
    RecordProperty("ns_each", std::to_string(alone.count() / kEach));
    std::printf("%.1f ns for each count\n", alone.count() / kEach);
    std::thread other([] {
        for (int i = 0; i < kEach; ++i)
            Count(Metric::kDeliveries);
    });
    for (int i = 0; i < kEach; ++i)
        Count(Metric::kDeliveries);
    other.join();
    EXPECT_EQ(Read()[Metric::kDeliveries], 3 * kEach);
}

}  // namespace
}  // namespace dl::testing
