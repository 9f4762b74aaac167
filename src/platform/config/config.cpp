#include "platform/config/config.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <system_error>
#include <unordered_map>
#include <utility>

#include "platform/clock/clock.h"
#include "platform/config/config_file.h"
#include "platform/config/config_text.h"

namespace dl
{
namespace
{

using config::ConfigText;
using config::ReadResult;

// What tells one state of a file from the next. The change time is part of it because a file that
// was made readable has the modification time that it had before.
struct FileState {
    int error = 0;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t modified_ns = 0;
    std::int64_t changed_ns = 0;
    bool operator==(const FileState&) const = default;
};

std::int64_t Nanoseconds(const timespec& time)
{
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

FileState StateOf(const struct stat& entry)
{
    return {0,
            entry.st_dev,
            entry.st_ino,
            entry.st_size,
            Nanoseconds(entry.st_mtim),
            Nanoseconds(entry.st_ctim)};
}

FileState StateOf(const std::string& path)
{
    struct stat entry = {};
    if (stat(path.c_str(), &entry) == 0)
        return StateOf(entry);
    FileState none;
    none.error = errno;
    return none;
}

// File times move in steps of some milliseconds: of a file changed this shortly ago another change
// may leave the same state behind.
bool MayChangeUnseen(const FileState& state)
{
    constexpr std::int64_t kStepNs = 50'000'000;
    const std::int64_t age = NowMicroseconds() * 1000 - state.changed_ns;
    return age < kStepNs && age > -kStepNs;
}

struct Entry {
    FileState state;
    std::shared_ptr<const ConfigText> text = std::make_shared<ConfigText>();
    bool settled = false;  // the parsed copy holds as long as the state does
    std::string problem;
    bool told = false;  // of `problem`, in `state`
};

struct Store {
    std::mutex mutex;
    std::string folder;
    std::function<void(const std::string&)> reporter;
    std::unordered_map<std::string, Entry> files;
};

// Never destroyed: objects of static life may still read their settings while the process ends.
Store& TheStore()
{
    static Store& store = *new Store;
    return store;
}

std::string FolderLocked(const Store& store)
{
    if (!store.folder.empty())
        return store.folder;
    const char* folder = std::getenv("DLMANAGER_CONF");
    return folder && *folder ? folder : "/etc/dlmanager";
}

std::string PathLocked(const Store& store, const std::string& file)
{
    return !file.empty() && file[0] == '/' ? file : FolderLocked(store) + "/" + file;
}

// Reads the file into its entry. While it cannot be read, what was read before stands, and each
// call tries again.
void Load(const std::string& path, Entry* entry)
{
    config::FileBytes read = config::ReadWholeFile(path);
    std::string problem;
    FileState state = StateOf(read.state);
    if (read.result == ReadResult::kMissing) {
        state = {};
        state.error = read.error;
        entry->text = std::make_shared<ConfigText>();
    } else if (read.result == ReadResult::kUnreadable) {
        if (read.state.st_ino == 0)  // not even opened
            state = StateOf(path);
        if (state.error == 0)
            state.error = read.error;
        problem = "cannot be read: " + std::generic_category().message(read.error);
    } else {
        auto text = std::make_shared<ConfigText>(config::ParseConfigText(read.bytes));
        problem = text->problem;
        if (read.result == ReadResult::kTooLong)
            problem = "longer than " + std::to_string(config::kMaxFileBytes) +
                      " bytes; the rest is left out";
        entry->text = std::move(text);
    }
    entry->told = entry->told && state == entry->state && problem == entry->problem;
    entry->settled = state.error == 0 && !MayChangeUnseen(state);
    entry->state = state;
    entry->problem = std::move(problem);
}

std::shared_ptr<const ConfigText> Current(const std::string& file)
{
    Store& store = TheStore();
    std::function<void(const std::string&)> reporter;
    std::string report;
    std::shared_ptr<const ConfigText> text;
    {
        const std::lock_guard<std::mutex> guard(store.mutex);
        const std::string path = PathLocked(store, file);
        Entry& entry = store.files[path];
        if (!entry.settled || StateOf(path) != entry.state)
            Load(path, &entry);
        if (!entry.problem.empty() && !entry.told && store.reporter) {
            entry.told = true;
            reporter = store.reporter;
            report = "configuration file " + path + ": " + entry.problem;
        }
        text = entry.text;
    }
    if (reporter)
        reporter(report);  // outside the lock: the log may read its settings
    return text;
}

int DecimalInt(const std::string& value)
{
    std::size_t at = value.find_first_not_of(" \t");
    if (at == std::string::npos)
        return 0;
    const bool negative = value[at] == '-';
    if (negative || value[at] == '+')
        ++at;
    std::int64_t number = 0;
    for (; at < value.size() && value[at] >= '0' && value[at] <= '9'; ++at) {
        number = number * 10 + (value[at] - '0');
        if (number > INT_MAX)
            return negative ? INT_MIN : INT_MAX;
    }
    return static_cast<int>(negative ? -number : number);
}

// Writers through a link and writers to its target meet in one lock, and the link stays a link.
// Empty for a link that leads nowhere.
std::string RealPath(const std::string& path)
{
    char* real = realpath(path.c_str(), nullptr);
    if (real) {
        std::string result(real);
        std::free(real);
        return result;
    }
    struct stat entry = {};
    return errno == ENOENT && lstat(path.c_str(), &entry) != 0 ? path : std::string();
}

}  // namespace

std::string GetPrivateProfileString(const std::string& section, const std::string& key,
                                    const std::string& fallback, std::size_t size,
                                    const std::string& file)
{
    if (size == 0)
        return {};
    const std::shared_ptr<const ConfigText> text = Current(file);
    const auto found = text->values.find(config::NameOf(section, key));
    return (found == text->values.end() ? fallback : found->second).substr(0, size - 1);
}

int GetPrivateProfileInt(const std::string& section, const std::string& key, int fallback,
                         const std::string& file)
{
    const std::shared_ptr<const ConfigText> text = Current(file);
    const auto found = text->values.find(config::NameOf(section, key));
    return found == text->values.end() ? fallback : DecimalInt(found->second);
}

bool WritePrivateProfileString(const std::string& section, const std::string& key,
                               const std::string& value, const std::string& file)
{
    if (!config::CanBeWritten(section, key, value))
        return false;
    const std::string path = RealPath(ConfigPath(file));
    if (path.empty())
        return false;
    struct stat entry = {};
    const bool exists = stat(path.c_str(), &entry) == 0;
    const config::WriteLock lock(path, exists ? &entry : nullptr);
    if (!lock.Held())
        return false;
    const config::FileBytes old = config::ReadWholeFile(path);  // what the writer before left
    if (old.result != ReadResult::kDone && old.result != ReadResult::kMissing)
        return false;
    const std::string edited = config::EditConfigText(old.bytes, section, key, value);
    if (edited.size() > config::kMaxFileBytes)
        return false;
    if (old.result == ReadResult::kDone && edited == old.bytes)
        return true;
    return config::ReplaceWholeFile(path, edited,
                                    old.result == ReadResult::kDone ? &old.state : nullptr);
}

std::string ConfigFolder()
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> guard(store.mutex);
    return FolderLocked(store);
}

std::string ConfigPath(const std::string& file)
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> guard(store.mutex);
    return PathLocked(store, file);
}

void SetConfigFolder(const std::string& folder)
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> guard(store.mutex);
    store.folder = folder;
}

void SetConfigReporter(std::function<void(const std::string&)> reporter)
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> guard(store.mutex);
    store.reporter = std::move(reporter);
}

}  // namespace dl
