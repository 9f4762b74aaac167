// One LDIF file behind the directory.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "platform/clock/clock.h"
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

// A file that was written this short a time ago may be written again in the same tick of the clock
// by which the file system stamps it; some stamp in whole seconds, or two.
bool MayChangeUnseen(const struct stat& state)
{
    constexpr std::int64_t kTick = 50'000;  // microseconds
    constexpr std::int64_t kCoarseTick = 2'100'000;
    const std::int64_t changed =
        static_cast<std::int64_t>(state.st_ctim.tv_sec) * 1'000'000 + state.st_ctim.tv_nsec / 1000;
    return NowMicroseconds() - changed < (state.st_ctim.tv_nsec == 0 ? kCoarseTick : kTick);
}

// The file's state as a text; one that never comes again while a change would not show.
std::string StateText(const struct stat& state)
{
    static std::atomic<std::uint64_t> unseen{0};
    std::string text;
    for (const std::uint64_t number :
         {static_cast<std::uint64_t>(state.st_dev), static_cast<std::uint64_t>(state.st_ino),
          static_cast<std::uint64_t>(state.st_size),
          static_cast<std::uint64_t>(state.st_mtim.tv_sec),
          static_cast<std::uint64_t>(state.st_mtim.tv_nsec),
          static_cast<std::uint64_t>(state.st_ctim.tv_sec),
          static_cast<std::uint64_t>(state.st_ctim.tv_nsec)})
        text += std::to_string(number) + " ";
    return MayChangeUnseen(state) ? text + "unsettled " + std::to_string(++unseen) : text;
}

bool AsksFor(const SearchQuery& query, std::string_view name)
{
    const auto answers = [name](const std::string& asked) {
        return asked == "*" || NameAnswers(asked, name);
    };
    return query.attributes.empty() ||
           std::any_of(query.attributes.begin(), query.attributes.end(), answers);
}

SearchEntry TakeEntry(LdifRecord* record, const SearchQuery& query, NamePool* names)
{
    SearchEntry entry;
    entry.dn = std::move(record->dn);
    std::set<std::string_view> seen;
    for (LdifLine& line : record->lines) {
        if (!AsksFor(query, line.name))
            continue;
        const std::string_view name = names->Keep(SchemaName(line.name));
        if (!query.attributes_only)
            entry.attributes.push_back({name, std::move(line.value)});
        else if (seen.insert(name).second)
            entry.attributes.push_back({name, {}});
    }
    return entry;
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
    bool Search(const SearchQuery& query, NamePool* names, const EntrySink& take) override;
    [[nodiscard]] DirectoryMark Mark() const override { return mark_; }
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
    DirectoryMark mark_;
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
    mark_ = {path_ + "\n" + settings_.base, StateText(state)};
    connected_ = true;
    return true;
}

bool LdifSession::Search(const SearchQuery& query, NamePool* names, const EntrySink& take)
{
    if (!connected_)
        return false;
    const std::string base_text = query.base ? query.base : settings_.base;
    const std::optional<Filter> wanted = Filter::Parse(query.filter);
    const std::optional<EntryName> base = ParseEntryName(base_text);
    if (!wanted || !base) {
        LogDirectory(1, "search of %s below \"%s\" failed: the %s is not understood",
                     query.filter.c_str(), base_text.c_str(), wanted ? "base" : "filter");
        return false;
    }
    struct stat state {
    };
    const File file = Open(&state);
    if (!file)
        return false;
    LdifReader reader(file.get());
    LdifRecord record;
    bool base_exists = base->steps.empty();
    std::size_t taken = 0;
    while (!base_exists || query.limit == 0 || taken < query.limit) {
        const LdifReader::Result next = reader.Next(&record);
        if (next == LdifReader::Result::kBroken) {
            LogBroken(reader);
            return false;
        }
        if (next == LdifReader::Result::kEnd)
            break;
        base_exists = base_exists || record.name.IsAtOrBelow(*base);
        if (InScope(record.name, *base, query.scope) && wanted->Matches(record.lines)) {
            taken++;
            take(TakeEntry(&record, query, names));
        }
    }
    if (base_exists)
        return true;
    LogDirectory(1, "search of %s below \"%s\" failed: no such entry", query.filter.c_str(),
                 base_text.c_str());
    return false;
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
    // A full disk, say, is no judgement of the change.
    *result = ModifyResult::kUnreachable;
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
    return ModifyResult::kUnreachable;
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
