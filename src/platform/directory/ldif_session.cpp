// One LDIF file behind the directory.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "platform/directory/directory_private.h"
#include "platform/directory/filter.h"
#include "platform/directory/ldif_change.h"
#include "platform/directory/ldif_edit.h"
#include "platform/directory/ldif_file.h"

namespace dl
{
namespace
{

constexpr int kAttempts = 5;  // of a change that somebody without the lock crosses

struct FileCloser {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }  // opened for reading
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// Files in the state in which they were last found sound, so that each client's Connect does not
// read all of a file again.
class SoundFiles
{
 public:
    bool Knows(const std::string& path, const struct stat& state)
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        const auto found = states_.find(path);
        return found != states_.end() && SameState(found->second, state);
    }
    void Learn(const std::string& path, const struct stat& state)
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        states_[path] = state;
    }

 private:
    std::mutex mutex_;
    std::map<std::string, struct stat> states_;
};

SoundFiles& Sound()
{
    static SoundFiles sound;
    return sound;
}

void Append(LdifRecord* record, bool attributes_only, SearchReq* result)
{
    SearchEntry entry;
    entry.dn = std::move(record->dn);
    std::set<std::string_view> seen;
    for (LdifLine& line : record->lines) {
        const std::string_view name = result->names.Keep(SchemaName(line.name));
        if (!attributes_only)
            entry.attributes.push_back({name, std::move(line.value)});
        else if (seen.insert(name).second)
            entry.attributes.push_back({name, {}});
    }
    result->entries.push_back(std::move(entry));
}

bool InScope(const EntryName& name, const EntryName& base, int scope)
{
    if (!name.IsAtOrBelow(base))
        return false;
    const std::size_t depth = name.steps.size() - base.steps.size();
    return scope == 2 || depth == static_cast<std::size_t>(scope);
}

}  // namespace

class LdifSession final : public DirectorySession
{
 public:
    explicit LdifSession(std::string path) : path_(std::move(path)) {}

    bool Connect(const std::string& host, int port) override;
    // The file's mode is what guards it.
    bool Bind(const std::string&, const std::string&) override { return connected_; }
    SearchReq Search(const char* base, int scope, bool attributes_only,
                     const std::string& filter) override;
    ModifyResult Modify(const std::string& entry,
                        const std::vector<AttributeChange>& changes) override;
    ModifyResult Add(const std::string& entry,
                     const std::vector<SearchAttribute>& attributes) override;
    ModifyResult Delete(const std::string& entry) override;
    void Unbind() override { connected_ = false; }

 private:
    // What is known of an entry after the whole file was read.
    struct Found {
        std::unique_ptr<LdifRecord> record;  // null: no such entry
        bool has_children = false;
        LdifEnd end;
    };
    using Planner = std::function<LdifChange(const Found&)>;

    File Open(struct stat* state);
    bool Look(std::FILE* file, const EntryName& name, Found* found);
    ModifyResult Change(const std::string& entry, const EntryName& name, const Planner& plan);
    bool ChangeOnce(const std::string& path, const std::string& entry, const EntryName& name,
                    const Planner& plan, ModifyResult* result);
    void LogBroken(const LdifReader& reader)
    {
        LogDirectory(1, "%s, %s", path_.c_str(), reader.Error().c_str());
    }

    const std::string path_;
    DirectorySettings settings_;
    bool connected_ = false;
};

File LdifSession::Open(struct stat* state)
{
    // Not to be held up by a pipe of that name.
    const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    File file(fd < 0 ? nullptr : fdopen(fd, "rb"));
    if (!file || fstat(fileno(file.get()), state) != 0) {
        LogDirectory(1, "%s: %s", path_.c_str(), std::strerror(errno));
        return nullptr;
    }
    if (!S_ISREG(state->st_mode)) {
        LogDirectory(1, "%s is not a regular file", path_.c_str());
        return nullptr;
    }
    return file;
}

// Reads the whole file: one that is broken is like a server that is down, and who finds it so
// before he searches keeps what he has.
bool LdifSession::Connect(const std::string&, int)
{
    settings_ = ReadDirectorySettings();
    connected_ = false;
    struct stat state {
    };
    const File file = Open(&state);
    if (!file)
        return false;
    if (!Sound().Knows(path_, state)) {
        LdifReader reader(file.get());
        LdifRecord record;
        LdifReader::Result result{};
        do {
            result = reader.Next(&record);
        } while (result == LdifReader::Result::kRecord);
        if (result == LdifReader::Result::kBroken) {
            LogBroken(reader);
            return false;
        }
        Sound().Learn(path_, state);
    }
    connected_ = true;
    return true;
}

SearchReq LdifSession::Search(const char* base, int scope, bool attributes_only,
                              const std::string& filter)
{
    if (!connected_)
        return FailedSearch();
    const std::string base_text = base ? base : settings_.base;
    const std::optional<Filter> wanted = Filter::Parse(filter);
    const std::optional<EntryName> base_name = ParseEntryName(base_text);
    if (!wanted || !base_name) {
        LogDirectory(1, "search of %s below \"%s\" failed: the %s is not understood",
                     filter.c_str(), base_text.c_str(), wanted ? "base" : "filter");
        return FailedSearch();
    }
    struct stat state {
    };
    const File file = Open(&state);
    if (!file)
        return FailedSearch();
    LdifReader reader(file.get());
    LdifRecord record;
    SearchReq result;
    bool base_exists = base_name->steps.empty();
    for (;;) {
        const LdifReader::Result next = reader.Next(&record);
        if (next == LdifReader::Result::kBroken) {
            LogBroken(reader);
            return FailedSearch();
        }
        if (next == LdifReader::Result::kEnd)
            break;
        base_exists = base_exists || record.name.IsAtOrBelow(*base_name);
        if (InScope(record.name, *base_name, scope) && wanted->Matches(record.lines))
            Append(&record, attributes_only, &result);
    }
    if (base_exists)
        return result;
    LogDirectory(1, "search of %s below \"%s\" failed: no such entry", filter.c_str(),
                 base_text.c_str());
    return FailedSearch();
}

// False when the file is broken or holds the entry twice.
bool LdifSession::Look(std::FILE* file, const EntryName& name, Found* found)
{
    LdifReader reader(file);
    LdifRecord record;
    for (;;) {
        const LdifReader::Result next = reader.Next(&record);
        if (next == LdifReader::Result::kBroken) {
            LogBroken(reader);
            return false;
        }
        if (next == LdifReader::Result::kEnd)
            break;
        if (!record.name.IsAtOrBelow(name))
            continue;
        if (!(record.name == name)) {
            found->has_children = true;
        } else if (found->record) {
            LogDirectory(1, "%s, line %lu: the entry of line %lu again", path_.c_str(), record.line,
                         found->record->line);
            return false;
        } else {
            found->record = std::make_unique<LdifRecord>(std::move(record));
        }
    }
    found->end = {reader.Size(), reader.EndsWithLineEnd(), reader.EndsWithEmptyLine(),
                  reader.FirstLineIsCrlf()};
    return true;
}

// False: the file has changed meanwhile, and nothing was done.
bool LdifSession::ChangeOnce(const std::string& path, const std::string& entry,
                             const EntryName& name, const Planner& plan, ModifyResult* result)
{
    *result = ModifyResult::kUnreachable;
    struct stat state {
    };
    const File file = Open(&state);
    Found found;
    if (!file || !Look(file.get(), name, &found))
        return true;
    const LdifChange change = plan(found);
    *result = change.result;
    if (change.result == ModifyResult::kRefused)
        LogDirectory(5, "change of %s refused: %s", entry.c_str(), change.reason.c_str());
    if (change.result != ModifyResult::kDone || change.edits.empty())
        return true;
    std::string error;
    const LdifWrite written = ApplyLdifEdits(file.get(), state, path, change.edits, &error);
    if (written == LdifWrite::kDone)
        return true;
    *result = written == LdifWrite::kUnsynced ? ModifyResult::kUnreachable : ModifyResult::kRefused;
    LogDirectory(written == LdifWrite::kChanged ? 6 : 1, "%s: %s", path_.c_str(), error.c_str());
    return written != LdifWrite::kChanged;
}

ModifyResult LdifSession::Change(const std::string& entry, const EntryName& name,
                                 const Planner& plan)
{
    // The file itself, when the configured name is a symbolic link: that one stays.
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path_.c_str(), nullptr),
                                                           std::free);
    if (!real) {
        LogDirectory(1, "%s: %s", path_.c_str(), std::strerror(errno));
        return ModifyResult::kUnreachable;
    }
    const LdifLock lock(real.get(), settings_.timeout_seconds);
    if (!lock.Held()) {
        LogDirectory(1, "no lock on %s", lock.Error().c_str());
        return ModifyResult::kUnreachable;
    }
    ModifyResult result = ModifyResult::kUnreachable;
    for (int i = 0; i < kAttempts; i++)
        if (ChangeOnce(real.get(), entry, name, plan, &result))
            return result;
    LogDirectory(1, "%s: somebody else goes on changing it", path_.c_str());
    return ModifyResult::kRefused;
}

ModifyResult LdifSession::Modify(const std::string& entry,
                                 const std::vector<AttributeChange>& changes)
{
    const std::optional<EntryName> name = ParseEntryName(entry);
    if (!connected_ || !name)
        return connected_ ? ModifyResult::kRefused : ModifyResult::kUnreachable;
    return Change(entry, *name, [&](const Found& found) -> LdifChange {
        if (!found.record)
            return {ModifyResult::kRefused, "no such entry", {}};
        return PlanModify(*found.record, found.end, changes);
    });
}

ModifyResult LdifSession::Add(const std::string& entry,
                              const std::vector<SearchAttribute>& attributes)
{
    const std::optional<EntryName> name = ParseEntryName(entry);
    if (!connected_ || !name)
        return connected_ ? ModifyResult::kRefused : ModifyResult::kUnreachable;
    return Change(entry, *name, [&](const Found& found) -> LdifChange {
        if (found.record)
            return {ModifyResult::kAlready, {}, {}};
        return PlanAdd(entry, *name, attributes, found.end);
    });
}

ModifyResult LdifSession::Delete(const std::string& entry)
{
    const std::optional<EntryName> name = ParseEntryName(entry);
    if (!connected_ || !name)
        return connected_ ? ModifyResult::kRefused : ModifyResult::kUnreachable;
    return Change(entry, *name, [&](const Found& found) -> LdifChange {
        if (found.has_children)
            return {ModifyResult::kRefused, "other entries stand below it", {}};
        if (!found.record)
            return {ModifyResult::kNotThere, {}, {}};
        return PlanDelete(*found.record);
    });
}

std::unique_ptr<DirectorySession> MakeLdifSession(const std::string& path)
{
    return std::make_unique<LdifSession>(path);
}

}  // namespace dl
