// Changing the entries of an LDIF file.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/directory/ldif_edit.h"
#include "platform/directory/ldif_session_private.h"

namespace dl
{
namespace
{

constexpr int kAttempts = 5;  // of a change that somebody without the lock crosses

}  // namespace

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

}  // namespace dl
