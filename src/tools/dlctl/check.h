// dlctl check: looks over a whole site and says of each fault what is wrong and what mends it.
//
// The parts add findings to a report. A finding may carry a repair; with --fix it is carried out,
// and what was mended counts no more. Only safe repairs are offered: folders are made, modes
// narrowed, owners set right; no value, entry or message is touched.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/log/log.h"

namespace dl
{

// The exit statuses that monitoring systems know.
enum class Severity { kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };

struct CheckFinding {
    Severity severity = Severity::kWarning;
    std::string what;
    std::string mend;
    bool fixed = false;
};

class CheckReport
{
 public:
    explicit CheckReport(bool fix) : fix_(fix) {}
    void Warn(const std::string& what, const std::string& mend);
    void Fail(const std::string& what, const std::string& mend);
    void CannotTell(const std::string& what, const std::string& mend);
    // With a repair, which says whether it is mended now.
    using Repair = std::function<bool()>;
    void WarnOrFix(const std::string& what, const std::string& mend, const Repair& repair);
    void FailOrFix(const std::string& what, const std::string& mend, const Repair& repair);
    [[nodiscard]] const std::vector<CheckFinding>& All() const { return findings_; }
    // The worst of what is not mended; "cannot tell" stands below "critical".
    [[nodiscard]] Severity Worst() const;
    [[nodiscard]] std::size_t Count(Severity severity) const;

    std::size_t lists = 0;  // that were looked at

 private:
    void Add(Severity severity, const std::string& what, const std::string& mend,
             const Repair& repair);
    const bool fix_;
    std::vector<CheckFinding> findings_;
};

struct CheckOptions {
    bool fix = false;
    bool json = false;
    bool no_relay = false;
    std::int64_t min_free = 100;  // megabytes; below a fifth of it is critical
};

// What the libraries log while it lives, instead of on standard error: the last line is the cause.
class CauseOfFailure : public LogSink
{
 public:
    CauseOfFailure() : before_(SetLogSink(this)) {}
    ~CauseOfFailure() override { SetLogSink(before_); }
    CauseOfFailure(const CauseOfFailure&) = delete;
    CauseOfFailure& operator=(const CauseOfFailure&) = delete;
    void Write(int level, const char* module, const std::string& escaped) override;
    // ": <cause>", or nothing.
    [[nodiscard]] std::string Text() const { return cause_.empty() ? "" : ": " + cause_; }

 private:
    LogSink* before_;
    std::string cause_;
};

// A folder that has to be there with `mode`, of the owner of `model` (a path; empty: whoever runs
// this). Makes and mends it with --fix.
struct FolderRule {
    const char* role;  // "the data folder"
    std::string path;
    mode_t mode = 0750;
    std::string model = {};
    bool critical = true;  // when it is missing
};
// Whether the folder is there, now.
bool CheckFolder(const FolderRule& rule, CheckReport* report);

// A file that holds when a job is due next.
struct DueRule {
    const char* job;  // "digest"
    std::string path;
    std::string frequency;  // daily, weekly or monthly; empty: daily
};
void CheckDueFile(const DueRule& rule, CheckReport* report);

// Whether all of `text` matches the extended regular expression (a constant), whatever its case.
[[nodiscard]] bool Matches(const std::string& text, const char* pattern);

// Whether the configuration can be read at all.
[[nodiscard]] bool CheckConfiguration(CheckReport* report);
void CheckDataAndQueue(const CheckOptions& options, CheckReport* report);
void CheckRelay(CheckReport* report);
void CheckDirectoryAndLists(CheckReport* report);
// Whether the service that runs has found its directory.
void CheckService(CheckReport* report);
// The index of a list's archive, and what its pages leave out.
void CheckArchive(const std::string& list, CheckReport* report);

}  // namespace dl
