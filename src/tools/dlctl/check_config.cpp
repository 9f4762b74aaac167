// dlctl check: the configuration files.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <system_error>

#include "platform/address/address.h"
#include "platform/config/config.h"
#include "platform/config/config_file.h"
#include "platform/config/data_path.h"
#include "platform/log/format.h"
#include "tools/dlctl/check.h"

namespace dl
{
namespace
{

enum class Kind { kText, kNumber, kPath, kWord, kOctal, kTime };

struct KnownKey {
    const char* section;
    const char* key;
    Kind kind = Kind::kText;
    long least = 0;  // kNumber; of the other kinds `most` is the longest text, 0: not known
    long most = 0;
    const char* words = "";  // kWord: "a|b"
};

constexpr long kPathSize = 4095;

constexpr KnownKey kMainKeys[] = {
    {"Gateway", "TimeZone", Kind::kText, 0, 31},
    {"Connection", "GatewayHostName", Kind::kText, 0, 127},
    {"Connection", "GatewayDomain", Kind::kText, 0, 127},
    {"Ldap", "File", Kind::kText, 0, kPathSize},
    {"Ldap", "HostName", Kind::kText, 0, 127},
    {"Ldap", "Port", Kind::kNumber, 0, 65535},
    {"Ldap", "Username", Kind::kText, 0, 63},
    {"Ldap", "Password", Kind::kText, 0, 63},
    {"Ldap", "BaseDN", Kind::kText, 0, kPathSize},
    {"Ldap", "StartTLS", Kind::kWord, 0, 0, "0|1"},
    {"Ldap", "TLSCACertFile", Kind::kPath, 0, kPathSize},
    {"Ldap", "TimeOut", Kind::kNumber, 1, 86400},
    {"Ldap", "PageSize", Kind::kNumber, 1, 1000000},
    {"DlManager", "DbPath", Kind::kPath, 0, kPathSize},
    {"DlManager", "CacheRefreshInterval", Kind::kNumber, 6, 1000000},
    {"DlManager", "CNFTimeOut", Kind::kNumber, 1, 36500},
    {"DlManager", "InstallationId", Kind::kText, 0, 63},
    {"DlManager", "ArchiveIndexTime", Kind::kTime, 0, 9},
    {"DlManager", "ArchiveIndexFrequency", Kind::kWord, 0, 0, "daily|weekly|monthly"},
    {"DlManager", "ArchiveDayOfWeek", Kind::kNumber, 0, 7},
    {"DlManager", "ArchiveDayOfMonth", Kind::kNumber, 0, 31},
    {"Queue", "Path", Kind::kPath, 0, kPathSize},
    {"Queue", "MaxAttempts", Kind::kNumber, 1, 1000000},
    {"Relay", "Host", Kind::kText, 0, kPathSize},
    {"Relay", "Port", Kind::kNumber, 1, 65535},
    {"Relay", "Socket", Kind::kPath, 0, kPathSize},
    {"Relay", "Protocol", Kind::kWord, 0, 0, "smtp|lmtp"},
    {"Relay", "MaxRecipients", Kind::kNumber, 1, 10000},
    {"Relay", "Connections", Kind::kNumber, 1, 50},
    {"Relay", "ConnectTimeOut", Kind::kNumber, 1, 86400},
    {"Relay", "AnswerTimeOut", Kind::kNumber, 1, 86400},
    {"Relay", "DataTimeOut", Kind::kNumber, 1, 86400},
    {"Relay", "HeloName", Kind::kText, 0, 255},
    {"Relay", "RetryMin", Kind::kNumber, 1, 86400},
    {"Relay", "RetryMax", Kind::kNumber, 1, 604800},
    {"Relay", "GiveUpAfter", Kind::kNumber, 0, 365},
    {"Relay", "Channel", Kind::kText, 0, 0},
    {"Relay", "LogFile", Kind::kPath, 0, kPathSize},
    {"Intake", "User", Kind::kText, 0, 63},
    {"Intake", "SocketMode", Kind::kOctal, 0, 15},
    {"Intake", "MaxConnections", Kind::kNumber, 1, 5000},
    {"Intake", "MaxMessageBytes", Kind::kNumber, 1, 1073741824},
    {"Intake", "MaxRecipients", Kind::kNumber, 1, 1000000},
    {"Intake", "IdleTimeOut", Kind::kNumber, 1, 86400},
    {"Intake", "LogFile", Kind::kPath, 0, kPathSize},
    {"Process", "RunDir", Kind::kPath, 0, kPathSize},
    {"Log", "Target", Kind::kWord, 0, 0, "syslog|file|stderr"},
    {"Log", "File", Kind::kPath, 0, kPathSize},
    {"Log", "MaxBytes", Kind::kNumber, 4097, 2147483647},
    {"Log", "MaxFiles", Kind::kNumber, 1, 200000},
    {"Log", "Level", Kind::kNumber, 1, 9},
};

struct Reading {
    const std::string& path;
    CheckReport* report;
    std::map<std::string, std::size_t> seen;  // "section/key" and its line
    std::string section;
    bool section_known = true;
};

std::string Trimmed(std::string_view text)
{
    const std::size_t begin = text.find_first_not_of(" \t\r");
    if (begin == std::string_view::npos)
        return "";
    return std::string(text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1));
}

bool IsWordOf(const std::string& value, std::string_view words)
{
    for (;;) {
        const std::size_t bar = words.find('|');
        if (EqualNoCase(value, words.substr(0, bar)))
            return true;
        if (bar == std::string_view::npos)
            return false;
        words.remove_prefix(bar + 1);
    }
}

// What is wrong with the value; empty when nothing is. No value is the default.
std::string Fault(const KnownKey& key, const std::string& value)
{
    char* end = nullptr;
    if (value.empty())
        return "";
    switch (key.kind) {
        case Kind::kNumber: {
            const long number = std::strtol(value.c_str(), &end, 10);
            if (*end != '\0')
                return "is no number";
            if (number < key.least || number > key.most)
                return FormatText("is not between %ld and %ld", key.least, key.most);
            return "";
        }
        case Kind::kOctal:
            (void)std::strtol(value.c_str(), &end, 8);
            return *end == '\0' ? "" : "is no octal number";
        case Kind::kWord:
            return IsWordOf(value, key.words) ? "" : std::string("is none of ") + key.words;
        case Kind::kTime:
            return Matches(value, "([01]?[0-9]|2[0-3]):[0-5]?[0-9]") ? "" : "is no time as 03:30";
        case Kind::kPath:
            if (value.front() != '/')
                return "does not begin with '/'";
            break;
        case Kind::kText:
            break;
    }
    return key.most != 0 && value.size() > static_cast<std::size_t>(key.most)
               ? FormatText("is longer than %ld bytes and cut", key.most)
               : "";
}

bool IsSection(const std::string& name)
{
    return std::any_of(std::begin(kMainKeys), std::end(kMainKeys),
                       [&](const KnownKey& key) { return EqualNoCase(key.section, name); });
}

void CheckKey(Reading* in, std::size_t line, const std::string& name, const std::string& value)
{
    const std::string where = FormatText("%s line %zu: ", in->path.c_str(), line);
    const auto [place, is_new] =
        in->seen.try_emplace(LowerCase(in->section) + "/" + LowerCase(name), line);
    if (!is_new)
        in->report->Warn(where + FormatText("%s of [%s] stood in line %zu before, the last one "
                                            "holds",
                                            name.c_str(), in->section.c_str(), place->second),
                         "remove one of the two lines");
    place->second = line;
    if (!in->section_known)
        return;
    const auto* known =
        std::find_if(std::begin(kMainKeys), std::end(kMainKeys), [&](const KnownKey& key) {
            return EqualNoCase(key.section, in->section) && EqualNoCase(key.key, name);
        });
    if (known == std::end(kMainKeys)) {
        in->report->Warn(where + "section [" + in->section + "] has no key " + name,
                         "correct the name or its section, or remove the line "
                         "(docs/configuration.md lists all keys)");
        return;
    }
    if (const std::string fault = Fault(*known, value); !fault.empty())
        in->report->Warn(where + name + " = " + value + " " + fault,
                         "correct the value (docs/configuration.md says what it may be)");
}

void CheckLine(Reading* in, std::size_t number, const std::string& raw)
{
    const std::string line = Trimmed(raw);
    const std::string where = FormatText("%s line %zu: ", in->path.c_str(), number);
    if (raw.find('\0') != std::string::npos) {
        in->report->Warn(where + "holds a NUL byte and is left out", "write the line anew");
    } else if (line.empty() || line[0] == '#' || line[0] == ';') {
        return;
    } else if (line[0] == '[') {
        const std::size_t end = line.find(']');
        in->section = end == std::string::npos ? "" : Trimmed(line.substr(1, end - 1));
        in->section_known = IsSection(in->section);
        if (end == std::string::npos)
            in->report->Fail(where + "the section has no ']', the keys below it do not count",
                             "write ']' behind the section's name");
        else if (!in->section_known)
            in->report->Warn(where + "there is no section [" + in->section + "]",
                             "correct the section's name (docs/configuration.md lists all)");
    } else if (const std::size_t equals = line.find('=');
               equals == std::string::npos || equals == 0) {
        in->report->Warn(where + "is no \"key = value\" and does not count",
                         "write it as \"key = value\", or put '#' before it");
    } else {
        CheckKey(in, number, Trimmed(line.substr(0, equals)), Trimmed(line.substr(equals + 1)));
    }
}

bool ReadFile(const std::string& path, config::FileBytes* file, CheckReport* report)
{
    *file = config::ReadWholeFile(path);
    switch (file->result) {
        case config::ReadResult::kMissing:
            report->Fail("the configuration file " + path + " is missing",
                         "write it (examples/site/qvms.conf is one), or name its folder with "
                         "--conf");
            return false;
        case config::ReadResult::kUnreadable:
            if (file->error == EACCES)
                report->CannotTell("the configuration file " + path + " may not be read",
                                   "run this as root or as the service's user");
            else
                report->Fail("the configuration file " + path +
                                 " cannot be read: " + std::generic_category().message(file->error),
                             "put a readable file in its place");
            return false;
        case config::ReadResult::kTooLong:
            report->Fail(path + " is longer than 16 MiB, the rest does not count",
                         "put the configuration in its place");
            return true;
        case config::ReadResult::kDone:
            break;
    }
    return true;
}

std::string Setting(const char* section, const char* key)
{
    return GetPrivateProfileString(section, key, "", 4096, kMainConfig);
}

// A name of the zone database, or the rules themselves as of POSIX: "CET-1CEST,M3.5.0,M10.5.0/3".
bool IsTimeZone(std::string zone)
{
    static constexpr char kRules[] =
        "([A-Za-z]{3,}|<[A-Za-z0-9+-]{3,}>)[+-]?[0-9]{1,2}(:[0-9]{2}){0,2}.*";
    if (zone.front() == ':')
        zone.erase(0, 1);
    const std::string file = zone.front() == '/' ? zone : "/usr/share/zoneinfo/" + zone;
    struct stat status {
    };
    if (zone.find("..") == std::string::npos && stat(file.c_str(), &status) == 0 &&
        S_ISREG(status.st_mode))
        return true;
    return Matches(zone, kRules);
}

void CheckTimeZone(CheckReport* report)
{
    const std::string zone = Setting("Gateway", "TimeZone");
    if (zone.empty() || StartsWithNoCase(zone, "xxx") || IsTimeZone(zone))
        return;
    report->Fail("the time zone " + zone + " is not known here, digests would go out by UTC",
                 "correct TimeZone in section Gateway (timedatectl list-timezones), or install "
                 "tzdata");
}

void CheckTogether(const config::FileBytes& file, const std::string& path, CheckReport* report)
{
    if (Setting("Connection", "GatewayHostName").empty() ||
        Setting("Connection", "GatewayDomain").empty())
        report->Warn("this mail host has no name: notices would come from postmaster@.",
                     "set GatewayHostName and GatewayDomain in section Connection");
    if (DataPath().empty())
        report->Fail("no data folder is configured", "set DbPath in section DlManager");
    if (!Setting("Ldap", "Username").empty() && Setting("Ldap", "Password").empty() &&
        Setting("Ldap", "File").empty())
        report->Fail("the directory's Username has no Password",
                     "set Password in section Ldap, or leave Username out to read anonymously");
    if (!Setting("Ldap", "Password").empty() && (file.state.st_mode & 07) != 0)
        report->WarnOrFix("everybody may read " + path + ", which holds a password",
                          "dlctl check --fix, or chmod o-rwx " + path,
                          [&] { return chmod(path.c_str(), file.state.st_mode & 07770) == 0; });
    if (EqualNoCase(Setting("Log", "Target"), "file") && Setting("Log", "File").empty())
        report->Fail("the log's target is a file, and no file is named",
                     "set File in section Log, or Target = syslog");
    const int least = GetPrivateProfileInt("Relay", "RetryMin", 60, kMainConfig);
    if (least > GetPrivateProfileInt("Relay", "RetryMax", 3600, kMainConfig))
        report->Warn("RetryMin of [Relay] is above RetryMax", "set RetryMax to RetryMin or more");
}

}  // namespace

bool CheckConfiguration(CheckReport* report)
{
    const std::string path = ConfigPath(kMainConfig);
    config::FileBytes file;
    if (!ReadFile(path, &file, report))
        return false;
    // The checks below say it better, with the line.
    SetConfigReporter([](const std::string&) {});
    Reading reading{path, report, {}, "", true};
    std::string_view text = file.bytes;
    if (text.starts_with("\xEF\xBB\xBF"))
        text.remove_prefix(3);
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::size_t end = text.find('\n');
        CheckLine(&reading, number, std::string(text.substr(0, end)));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    CheckTimeZone(report);
    CheckTogether(file, path, report);
    return true;
}

}  // namespace dl
