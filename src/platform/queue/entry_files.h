// The files of the embedded queue beside its index: message files, the identifier counter, claims.
//
//   <folder>/msg/%08X.msg   one message; made by Reserve at its final place
//   <folder>/next.id        the next identifier in decimal, read and written under a lock
//   <folder>/entries.lock   empty; its bytes are locked to claim things, and its time is set for
//                           each new entry (see news_watch.h)
//
// A claim is a lock on one byte of entries.lock (see lock_file.h), so it ends with the process that
// made it. Nothing here logs; `cause` gets plain words on failure. One thread at a time: the owner
// locks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/queue/lock_file.h"

namespace dl
{

class EntryFiles
{
 public:
    // Makes what is missing.
    [[nodiscard]] bool Open(const std::string& folder, std::string* cause);
    // What the superuser makes belongs to the folder's owner: a tool that root starts must not lock
    // the service out.
    void GiveToOwner(const std::string& path) const;
    [[nodiscard]] static std::string FileName(std::uint32_t id, const char* extension);
    [[nodiscard]] std::string Path(std::uint32_t id, const char* extension) const;

    enum class Known { kYes, kNo, kFailed };
    // Claims the next identifier that has no file and that `known` does not know, and makes its
    // ".msg" file. `known` that fails leaves `cause` as it is.
    [[nodiscard]] std::optional<std::uint32_t> Reserve(
        const std::function<Known(std::uint32_t)>& known, std::string* cause);
    // The counter goes on behind `id` when it is before it: its file is never synced, and a power
    // loss may have brought an older one back.
    [[nodiscard]] bool GoOnBehind(std::uint32_t id, std::string* cause);
    // False when another process has it. Claiming what this object has already is true.
    [[nodiscard]] bool Claim(std::uint32_t id);
    void Release(std::uint32_t id);
    [[nodiscard]] bool HasClaim(std::uint32_t id) const { return claims_.count(id) != 0; }

    // Puts the message file and the folder on disk; the two alone, for who syncs many files.
    [[nodiscard]] bool Sync(std::uint32_t id, std::int64_t* bytes, std::string* cause) const;
    [[nodiscard]] bool SyncMessage(std::uint32_t id, std::int64_t* bytes, std::string* cause) const;
    [[nodiscard]] bool SyncFolder(std::string* cause) const;
    // Lets the disk begin to write the message file, without waiting for it.
    void BeginSync(std::uint32_t id) const;
    [[nodiscard]] bool HasMessage(std::uint32_t id) const;
    void RemoveMessage(std::uint32_t id) const;
    void RemoveNamed(const std::string& name) const;

    // A name in the message folder that belongs to an identifier.
    struct Name {
        std::uint32_t id;
        std::string name;
    };
    // At most `limit` of them (0: all). None when the folder cannot be read.
    [[nodiscard]] std::optional<std::vector<Name>> Names(std::size_t limit) const;

    // Wakes who waits for entries, by the time of the lock file; after a commit.
    void TellNews() const;
    [[nodiscard]] std::string NewsPath() const { return folder_ + "/entries.lock"; }

    // Readers are claimed by number; they are never used again.
    [[nodiscard]] bool ClaimReader(std::int64_t reader);
    void ReleaseReader(std::int64_t reader);
    // Whether another object has it.
    [[nodiscard]] bool ReaderLives(std::int64_t reader) const;
    // Says that this object uses the folder, for as long as it lives; true when no other one does.
    [[nodiscard]] bool Enter();

 private:
    enum class Tried { kMade, kInUse, kFailed };
    Tried TryId(std::uint32_t id, const std::function<Known(std::uint32_t)>& known,
                std::string* cause);

    std::string folder_;
    LockFile locks_;
    LockFile counter_;
    std::unordered_set<std::uint32_t> claims_;
};

// `error` of the C library in plain words.
[[nodiscard]] std::string PlainError(int error);

}  // namespace dl
