// One LDIF file behind the directory: connecting and searching.
#include "platform/directory/ldif_session_private.h"

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <set>

#include "platform/clock/clock.h"
#include "platform/directory/ldif_edit.h"
#include "platform/directory/ldif_index.h"

namespace dl
{
namespace
{

LdifIndexes& Indexes()
{
    static LdifIndexes indexes;
    return indexes;
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

}  // namespace

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

// Whether the whole file can be read; what was learned of it serves until it changes.
bool LdifSession::IsSound(std::FILE* file, const struct stat& state)
{
    const std::shared_ptr<const LdifIndex> known = Indexes().Get(path_, state);
    if (known && known->Base() == settings_.base)
        return true;
    const bool lasting = !MayChangeUnseen(state);
    auto index = std::make_shared<LdifIndex>(settings_.base);
    LdifReader reader(file);
    LdifRecord record;
    LdifReader::Result result{};
    while ((result = reader.Next(&record)) == LdifReader::Result::kRecord)
        if (lasting)
            index->Add(record);
    if (result == LdifReader::Result::kBroken) {
        LogBroken(reader);
        return false;
    }
    index->Finish();
    if (lasting)
        Indexes().Put(path_, state, std::move(index));
    return true;
}

// A file that is broken is like a server that is down, and who finds it so before he searches keeps
// what he has.
bool LdifSession::Connect(const std::string&, int)
{
    settings_ = ReadDirectorySettings();
    connected_ = false;
    struct stat state {
    };
    const File file = Open(&state);
    if (!file)
        return false;
    mark_ = {path_ + "\n" + settings_.base, StateText(state)};
    connected_ = IsSound(file.get(), state);
    return connected_;
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
    const Question question{query, *wanted, *base, names};
    return ReadPlaces(file.get(), state, base_text, question, take) ||
           ReadAll(file.get(), base_text, question, take);
}

bool LdifSession::Question::Matches(const LdifRecord& record) const
{
    if (!record.name.IsAtOrBelow(base))
        return false;
    const std::size_t depth = record.name.steps.size() - base.steps.size();
    return (query.scope == 2 || depth == static_cast<std::size_t>(query.scope)) &&
           filter.Matches(record.lines);
}

SearchEntry LdifSession::Question::Take(LdifRecord* record) const
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

// Reads only records that may match. False when these are not known, or when the file was changed
// underneath: nothing has been taken then.
bool LdifSession::ReadPlaces(std::FILE* file, const struct stat& state, const std::string& base,
                             const Question& question, const EntrySink& take)
{
    const std::shared_ptr<const LdifIndex> index = Indexes().Get(path_, state);
    const auto keys = question.filter.Needs(LdifIndex::kAttribute);
    const auto places = index && index->Holds(base) && keys ? index->Find(*keys) : std::nullopt;
    if (!places)
        return false;
    std::vector<SearchEntry> found;
    for (const LdifPlace& place : *places) {
        LdifRecord record;
        if (fseeko(file, static_cast<off_t>(place.begin), SEEK_SET) != 0 ||
            LdifReader(file, place).Next(&record) != LdifReader::Result::kRecord)
            return false;
        if (question.Matches(record) && !question.Enough(found.size()))
            found.push_back(question.Take(&record));
    }
    struct stat now {
    };
    if (fstat(fileno(file), &now) != 0 || !SameState(now, state))
        return false;
    for (SearchEntry& entry : found)
        take(std::move(entry));
    return true;
}

bool LdifSession::ReadAll(std::FILE* file, const std::string& base, const Question& question,
                          const EntrySink& take)
{
    std::rewind(file);
    LdifReader reader(file);
    LdifRecord record;
    bool base_exists = question.base.steps.empty();
    for (std::size_t taken = 0; !base_exists || !question.Enough(taken);) {
        const LdifReader::Result next = reader.Next(&record);
        if (next == LdifReader::Result::kBroken) {
            LogBroken(reader);
            return false;
        }
        if (next == LdifReader::Result::kEnd)
            break;
        base_exists = base_exists || record.name.IsAtOrBelow(question.base);
        if (!question.Matches(record) || question.Enough(taken))
            continue;
        taken++;
        take(question.Take(&record));
    }
    if (base_exists)
        return true;
    LogDirectory(1, "search of %s below \"%s\" failed: no such entry",
                 question.query.filter.c_str(), base.c_str());
    return false;
}

std::unique_ptr<DirectorySession> MakeLdifSession(const std::string& path)
{
    return std::make_unique<LdifSession>(path);
}

}  // namespace dl
