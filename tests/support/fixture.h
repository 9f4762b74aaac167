// What every test stands on: a folder, a configuration, a clock, a zone and a captured log of its
// own.
//
// A level 1 line that the test did not announce with ExpectError fails it. Nothing here reads the
// real clock, zone or /etc.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/clock/clock.h"
#include "platform/log/log.h"

namespace dl::testing
{

class TestClock : public Clock
{
 public:
    std::time_t Now() override { return now; }
    void SleepFor(std::chrono::milliseconds time) override
    {
        const auto seconds = slept / std::chrono::seconds(1);
        slept += time;
        if (runs)
            now += slept / std::chrono::seconds(1) - seconds;
    }

    std::time_t now = 1'100'000'000;  // 2004-11-09 11:33:20 UTC
    std::chrono::milliseconds slept{0};
    bool runs = false;  // whether sleeping moves the clock
};

class CapturedLog : public LogSink
{
 public:
    struct Line {
        int level;
        std::string module;
        std::string text;
    };

    CapturedLog();
    ~CapturedLog() override;
    void Write(int level, const char* module, const std::string& escaped) override;

    // Whether some line is `text` (or holds it).
    [[nodiscard]] bool Has(int level, std::string_view text) const;
    [[nodiscard]] bool HasPart(std::string_view part) const;
    [[nodiscard]] std::vector<Line> Lines() const;
    // "<level> <text>" of each line of at most `level`, in order.
    [[nodiscard]] std::vector<std::string> Texts(int level = 6) const;
    void Clear();
    // Announces a level 1 line that holds `part`; it must come.
    void ExpectError(const std::string& part);

 private:
    LogSink* before_;
    mutable std::mutex mutex_;
    std::vector<Line> lines_;
    std::vector<Line> errors_;  // level 1 lines, kept over Clear
    std::vector<std::string> expected_;
};

class Fixture : public ::testing::Test
{
 protected:
    Fixture();
    ~Fixture() override;

    // A path in the test's own folder, which is removed at the end.
    [[nodiscard]] std::string Path(const std::string& name) const;
    // Writes a file there, with its folders; returns its path.
    std::string Write(const std::string& name, std::string_view bytes);
    // Writes "qvms.conf" in the configuration folder (Path("conf")).
    void Configure(const std::string& text);
    void SetZone(const std::string& zone);

    TestClock clock;
    CapturedLog log;

 private:
    std::filesystem::path folder_;
    ScopedClock scoped_clock_;
    std::string zone_before_;
    bool had_zone_ = false;
};

[[nodiscard]] std::string ReadFile(const std::string& path);
// What is in a folder; nothing when that is missing.
[[nodiscard]] std::set<std::string> FileNames(const std::string& folder);
// The folder tests/data, and a file in it.
[[nodiscard]] std::string DataPath(const std::string& name);
// Examples of a file in tests/data, each "== <name>", what goes in, "->" on a line of its own, what
// must come out. "\0" stands for a NUL byte, "\" at the end of a line for no line end.
struct DataBlock {
    std::string name;
    std::string in;
    std::string want;
};
[[nodiscard]] std::vector<DataBlock> ReadBlocks(const std::string& file);
// The lines of a file in tests/data, or of its section "== <section>", cut at each " | "; those
// that begin with "#" are left out. Fields are as in Unescaped.
[[nodiscard]] std::vector<std::vector<std::string>> ReadTable(const std::string& file,
                                                              const std::string& section = "");
// `text` with "\r", "\n", "\t", "\0" (NUL), "\xHH", "\\", "\{<count> <text>}" for a text so many
// times, and "\-" for nothing.
[[nodiscard]] std::string Unescaped(std::string_view text);
// A port of 127.0.0.1 that was free a moment ago.
[[nodiscard]] int FreePort();
// "\n" becomes "\r\n".
[[nodiscard]] std::string Crlf(std::string_view text);

}  // namespace dl::testing
