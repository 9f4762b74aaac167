// dlctl check: the report and the command.

#include "tools/dlctl/check.h"

#include <regex.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>
#include <unordered_map>

#include "platform/log/format.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

const char* NameOf(Severity severity)
{
    static constexpr const char* kNames[] = {"ok", "warning", "critical", "unknown"};
    return kNames[static_cast<int>(severity)];
}

const char* Heading(Severity severity)
{
    static constexpr const char* kNames[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
    return kNames[static_cast<int>(severity)];
}

int Rank(Severity severity)
{
    static constexpr int kRanks[] = {0, 1, 3, 2};
    return kRanks[static_cast<int>(severity)];
}

// The first line is what a monitoring system shows.
void Print(const CheckReport& report)
{
    const Severity worst = report.Worst();
    std::printf("%s: %zu list(s), %zu critical, %zu warning(s), %zu unknown, %zu mended\n",
                Heading(worst), report.lists, report.Count(Severity::kCritical),
                report.Count(Severity::kWarning), report.Count(Severity::kUnknown),
                report.Count(Severity::kOk));
    for (const CheckFinding& finding : report.All())
        std::printf("%s: %s; mend: %s\n", finding.fixed ? "MENDED" : Heading(finding.severity),
                    EscapeForLog(finding.what.c_str()).c_str(),
                    EscapeForLog(finding.mend.c_str()).c_str());
}

void PrintAsJson(const CheckReport& report)
{
    Json findings = Json::array();
    for (const CheckFinding& finding : report.All())
        findings.push_back({{"severity", NameOf(finding.severity)},
                            {"finding", finding.what},
                            {"mend", finding.mend},
                            {"fixed", finding.fixed}});
    PrintJson({{"status", NameOf(report.Worst())},
               {"lists", report.lists},
               {"critical", report.Count(Severity::kCritical)},
               {"warnings", report.Count(Severity::kWarning)},
               {"unknown", report.Count(Severity::kUnknown)},
               {"fixed", report.Count(Severity::kOk)},
               {"findings", findings}});
}

int Check(const CheckOptions& options)
{
    CheckReport report(options.fix);
    if (CheckConfiguration(&report)) {
        CheckDataAndQueue(options, &report);
        CheckDirectoryAndLists(&report);
        CheckService(&report);
        if (!options.no_relay)
            CheckRelay(&report);
    }
    if (options.json)
        PrintAsJson(report);
    else
        Print(report);
    return static_cast<int>(report.Worst());
}

bool GiveLike(const std::string& path, const std::string& model)
{
    struct stat owner {
    };
    return geteuid() != 0 || model.empty() || stat(model.c_str(), &owner) != 0 ||
           lchown(path.c_str(), owner.st_uid, owner.st_gid) == 0;
}

bool MakeFolder(const FolderRule& rule)
{
    if (mkdir(rule.path.c_str(), rule.mode) != 0)
        return false;
    return chmod(rule.path.c_str(), rule.mode) == 0 && GiveLike(rule.path, rule.model);
}

}  // namespace

void CheckReport::Add(Severity severity, const std::string& what, const std::string& mend,
                      const Repair& repair)
{
    const bool fixed = fix_ && repair && repair();
    findings_.push_back({severity, what, mend, fixed});
}

void CheckReport::Warn(const std::string& what, const std::string& mend)
{
    Add(Severity::kWarning, what, mend, nullptr);
}

void CheckReport::Fail(const std::string& what, const std::string& mend)
{
    Add(Severity::kCritical, what, mend, nullptr);
}

void CheckReport::CannotTell(const std::string& what, const std::string& mend)
{
    Add(Severity::kUnknown, what, mend, nullptr);
}

void CheckReport::WarnOrFix(const std::string& what, const std::string& mend, const Repair& repair)
{
    Add(Severity::kWarning, what, mend, repair);
}

void CheckReport::FailOrFix(const std::string& what, const std::string& mend, const Repair& repair)
{
    Add(Severity::kCritical, what, mend, repair);
}

Severity CheckReport::Worst() const
{
    Severity worst = Severity::kOk;
    for (const CheckFinding& finding : findings_)
        if (!finding.fixed && Rank(finding.severity) > Rank(worst))
            worst = finding.severity;
    return worst;
}

// kOk counts what was mended.
std::size_t CheckReport::Count(Severity severity) const
{
    std::size_t count = 0;
    for (const CheckFinding& finding : findings_)
        count += (finding.fixed ? Severity::kOk : finding.severity) == severity ? 1 : 0;
    return count;
}

bool Matches(const std::string& text, const char* pattern)
{
    struct Compiled {
        ~Compiled() { regfree(&rules); }
        regex_t rules{};
        bool usable = false;
    };
    static std::unordered_map<const char*, Compiled> made;  // by the address of the constant
    const auto [place, is_new] = made.try_emplace(pattern);
    Compiled& one = place->second;
    if (is_new)
        one.usable = regcomp(&one.rules, (std::string("^(") + pattern + ")$").c_str(),
                             REG_EXTENDED | REG_ICASE | REG_NOSUB) == 0;
    return one.usable && regexec(&one.rules, text.c_str(), 0, nullptr, 0) == 0;
}

void CauseOfFailure::Write(int level, const char* /*module*/, const std::string& escaped)
{
    if (level <= 5)
        cause_ = escaped;
}

bool CheckFolder(const FolderRule& rule, CheckReport* report)
{
    const std::string name = std::string(rule.role) + " " + rule.path;
    const std::string mode = FormatText("%04o", static_cast<unsigned>(rule.mode));
    struct stat status {
    };
    if (stat(rule.path.c_str(), &status) != 0) {
        if (errno != ENOENT) {
            report->CannotTell(
                name + " cannot be looked at: " + std::generic_category().message(errno),
                "run this as root or as the service's user");
            return false;
        }
        const auto repair = [&rule] { return MakeFolder(rule); };
        const std::string mend =
            "dlctl check --fix, or make it with mode " + mode + " for the service's user";
        if (rule.critical)
            report->FailOrFix(name + " is missing", mend, repair);
        else
            report->WarnOrFix(name + " is missing", mend, repair);
        return stat(rule.path.c_str(), &status) == 0;
    }
    if (!S_ISDIR(status.st_mode)) {
        report->Fail(name + " is no folder", "move the file away, then dlctl check --fix");
        return false;
    }
    const mode_t extra = status.st_mode & 07777 & ~rule.mode & static_cast<mode_t>(~02000);
    const mode_t missing = rule.mode & 0700 & ~status.st_mode;
    if (extra != 0 || missing != 0)
        report->WarnOrFix(
            FormatText("%s has mode %04o, %s", name.c_str(),
                       static_cast<unsigned>(status.st_mode & 07777),
                       missing != 0 ? "its owner cannot use it" : "others can look into it"),
            "dlctl check --fix, or chmod " + mode + " " + rule.path,
            [&rule] { return chmod(rule.path.c_str(), rule.mode) == 0; });
    struct stat owner {
    };
    if (!rule.model.empty() && stat(rule.model.c_str(), &owner) == 0 &&
        owner.st_uid != status.st_uid)
        report->WarnOrFix(
            FormatText("%s belongs to user %u, %s to user %u", name.c_str(), status.st_uid,
                       rule.model.c_str(), owner.st_uid),
            "dlctl check --fix as root, or chown --reference=" + rule.model + " " + rule.path,
            [&rule] { return geteuid() == 0 && GiveLike(rule.path, rule.model); });
    return true;
}

void AddCheckCommands(CLI::App* program, int* status)
{
    auto options = std::make_shared<CheckOptions>();
    CLI::App* check = program->add_subcommand(
        "check",
        "Look for what is wrong: configuration, folders, queue, directory, lists, relay. Exit "
        "status 0 in order, 1 warnings, 2 critical, 3 it could not be told");
    check->add_flag("--fix", options->fix, "Make missing folders, mend modes and owners");
    check->add_flag("--json", options->json, "As JSON");
    check->add_flag("--no-relay", options->no_relay, "Leave the mail relay alone");
    check
        ->add_option("--min-free", options->min_free,
                     "Megabytes that should be free on each disk; below a fifth is critical")
        ->default_val(100)
        ->check(CLI::NonNegativeNumber);
    check->callback([=] { *status = Check(*options); });
}

}  // namespace dl
