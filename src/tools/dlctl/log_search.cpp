#include "tools/dlctl/log_search.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <utility>

#include "platform/config/config.h"
#include "platform/log/log.h"

namespace dl
{
namespace
{

constexpr const char* kModules[] = {"DL Manager", "DL Send",    "DL Intake", "DL Queue",
                                    "DL Store",   "DL Metrics", "Kestrune"};

bool IsRotation(std::string_view text)
{
    return !text.empty() && text.size() <= 16 && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isdigit(static_cast<unsigned char>(c)) != 0 || c == '-';
    });
}

// Whether `name` is `base` or a rotated one of it: "dl.1.log" for "dl.log" as the programs make
// them, "dl.log.1" and "dl.log-20261121" as logrotate does.
bool Belongs(std::string_view name, std::string_view base)
{
    if (name.starts_with(base)) {
        const std::string_view rest = name.substr(base.size());
        return rest.empty() || ((rest[0] == '.' || rest[0] == '-') && IsRotation(rest.substr(1)));
    }
    const std::size_t dot = base.rfind('.');
    if (dot == std::string_view::npos || dot == 0)
        return false;
    const std::string_view end = base.substr(dot);
    return name.size() > base.size() && name.starts_with(base.substr(0, dot + 1)) &&
           name.ends_with(end) &&
           IsRotation(name.substr(dot + 1, name.size() - dot - 1 - end.size()));
}

bool IsCompressed(std::string* name)
{
    for (const char* end : {".gz", ".xz", ".zst", ".bz2"})
        if (name->ends_with(end)) {
            name->resize(name->size() - std::strlen(end));
            return true;
        }
    return false;
}

// None of it when it is empty; false when it cannot be read.
bool MapFile(const std::string& path, std::string_view* text)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat status {
    };
    const bool usable = fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    void* mapped = MAP_FAILED;
    const auto size = static_cast<std::size_t>(usable ? status.st_size : 0);
    if (size > 0)
        mapped = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (fd >= 0)
        close(fd);
    if (mapped != MAP_FAILED)
        *text = {static_cast<const char*>(mapped), size};
    return usable && (size == 0 || mapped != MAP_FAILED);
}

}  // namespace

LogGroup::LogGroup(const std::string& path, std::vector<std::string>* skipped)
{
    std::vector<std::pair<std::filesystem::file_time_type, std::string>> found;
    std::error_code error;
    const std::filesystem::path base(path);
    for (auto file = std::filesystem::directory_iterator(base.parent_path(), error);
         !error && file != std::filesystem::directory_iterator(); file.increment(error)) {
        std::string name = file->path().filename();
        const bool compressed = IsCompressed(&name);
        std::error_code gone;
        if (!Belongs(name, base.filename().string()))
            continue;
        if (compressed)
            skipped->push_back(file->path());
        else
            found.emplace_back(file->last_write_time(gone), file->path());
    }
    std::sort(found.begin(), found.end());
    for (auto& [time, name] : found) {
        std::string_view text;
        if (!MapFile(name, &text)) {
            skipped->push_back(name);
            continue;
        }
        paths_.push_back(name);
        texts_.push_back(text);
    }
}

LogGroup::~LogGroup()
{
    for (const std::string_view text : texts_)
        if (!text.empty())
            munmap(const_cast<char*>(text.data()), text.size());
}

LogGroup::LogGroup(LogGroup&& other) noexcept
    : paths_(std::move(other.paths_)), texts_(std::exchange(other.texts_, {}))
{
}

void LogGroup::Find(std::string_view needle, const std::function<bool(const Line&)>& visit) const
{
    for (std::size_t i = 0; i < texts_.size(); ++i) {
        const std::string_view text = texts_[i];
        std::size_t from = 0;
        while (from < text.size()) {
            const void* found =
                memmem(text.data() + from, text.size() - from, needle.data(), needle.size());
            if (!found)
                break;
            const auto at = static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
            const std::size_t before = at == 0 ? std::string_view::npos : text.rfind('\n', at - 1);
            const std::size_t begin = before == std::string_view::npos ? 0 : before + 1;
            const std::size_t end = std::min(text.find('\n', at), text.size());
            from = end + 1;
            if (!visit({text.substr(begin, end - begin), i, from}))
                return;
        }
    }
}

bool LogGroup::Next(Line* line) const
{
    while (line->file < texts_.size() && line->next >= texts_[line->file].size()) {
        ++line->file;
        line->next = 0;
    }
    if (line->file >= texts_.size())
        return false;
    const std::string_view text = texts_[line->file];
    const std::size_t end = std::min(text.find('\n', line->next), text.size());
    line->text = text.substr(line->next, end - line->next);
    line->next = end + 1;
    return true;
}

// "<time> [<process>] <level> <module>: <text>", or "<time> <host> <program>[<process>]: <level>
// <module>: <text>". A text that claims to be such a line stands behind the first real one.
bool ParseLogLine(std::string_view line, LogRecord* record)
{
    std::size_t best = std::string_view::npos;
    for (const char* module : kModules) {
        const std::string mark = std::string(" ") + module + ": ";
        const std::size_t at = line.find(mark);
        if (at == std::string_view::npos || at >= best || at < 2 ||
            std::isdigit(static_cast<unsigned char>(line[at - 1])) == 0)
            continue;
        best = at;
        record->module = module;
        record->text = line.substr(at + mark.size());
    }
    if (best == std::string_view::npos)
        return false;
    if (std::isdigit(static_cast<unsigned char>(line[0])) != 0)
        record->time = line.substr(0, std::min(line.find(line[10] == 'T' ? ' ' : '['), best));
    else
        record->time = line.substr(0, 15);  // "Nov 21 10:00:00"
    while (!record->time.empty() && record->time.back() == ' ')
        record->time.pop_back();
    return true;
}

std::vector<std::string> ConfiguredLogs()
{
    const LogSettings settings = ReadLogSettings();
    if (settings.target != LogSettings::Target::kFile || settings.path.empty())
        return {"/var/log/mail.log", "/var/log/mail.info", "/var/log/syslog"};
    const std::string folder = settings.path.substr(0, settings.path.rfind('/') + 1);
    const auto file = [&](const char* section, const char* name) {
        return GetPrivateProfileString(section, "LogFile", folder + name, 4096, kMainConfig);
    };
    const std::string intake = file("Intake", "dlsubmit.log");
    return {intake, intake.substr(0, intake.rfind('/') + 1) + "dlsubmit-pipe.log", settings.path,
            file("Relay", "dlsend.log")};
}

}  // namespace dl
