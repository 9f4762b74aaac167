// Looking through the programs' logs, the rotated ones too, quickly: files are mapped and searched
// for a few texts, nothing else of them is read.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace dl
{

// A log and its rotated predecessors, the oldest first; lines run on from one to the next.
class LogGroup
{
 public:
    // `path` is the present file. Names of files that are compressed, or that cannot be read, are
    // added to `skipped`.
    LogGroup(const std::string& path, std::vector<std::string>* skipped);
    ~LogGroup();
    LogGroup(LogGroup&&) noexcept;
    LogGroup& operator=(LogGroup&&) = delete;

    [[nodiscard]] const std::vector<std::string>& Paths() const { return paths_; }

    struct Line {
        std::string_view text;  // without its end; valid as long as the group
        std::size_t file = 0;
        std::size_t next = 0;  // where the next line begins
    };
    // Calls `visit` with each line that holds `needle`, in order, until it gives false.
    void Find(std::string_view needle, const std::function<bool(const Line&)>& visit) const;
    // The line behind `line`, in the next file when need be; false at the end.
    [[nodiscard]] bool Next(Line* line) const;

 private:
    std::vector<std::string> paths_;
    std::vector<std::string_view> texts_;  // mapped
};

// A line of any of the logs in its parts.
struct LogRecord {
    std::string time;  // as it stands there
    std::string module;
    std::string_view text;
};
// False when it is no line of these programs. Understands the programs' own files and syslog.
[[nodiscard]] bool ParseLogLine(std::string_view line, LogRecord* record);

// The logs that the configuration names; syslog's usual files when it names none.
[[nodiscard]] std::vector<std::string> ConfiguredLogs();

}  // namespace dl
