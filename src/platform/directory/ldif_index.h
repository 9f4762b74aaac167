// What is known of an LDIF file in one state: that it is sound, and where each address stands in
// it.
//
// Built while Connect reads the whole file, then only read, by sessions of all threads. A search
// for a value of "mail" reads only the records that may have it; whether they match is looked at
// there. Takes 24 bytes for each value, and keeps no more than a million.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/directory/ldif_file.h"

namespace dl
{

class LdifIndex
{
 public:
    static constexpr std::string_view kAttribute = "mail";

    // For searches below `base`, the name of an entry.
    explicit LdifIndex(std::string base) : base_(std::move(base)), name_(ParseEntryName(base_)) {}
    // Each record, in the order of the file; then Finish.
    void Add(const LdifRecord& record);
    void Finish();

    // The records that may hold one of `keys` (ValueKey) as kAttribute, in the order of the file;
    // none when that is not known.
    [[nodiscard]] std::optional<std::vector<LdifPlace>> Find(
        const std::vector<std::string>& keys) const;
    [[nodiscard]] const std::string& Base() const { return base_; }
    // Whether there is an entry at or below `base`, which a search needs to know; false, too, for a
    // name that is not the one given.
    [[nodiscard]] bool Holds(const std::string& base) const
    {
        return base.empty() || (base == base_ && holds_base_);
    }

 private:
    struct Value {
        std::uint64_t hash;
        LdifPlace place;
    };
    const std::string base_;
    const std::optional<EntryName> name_;
    bool holds_base_ = false;
    std::vector<Value> values_;  // by hash, then place
    bool complete_ = true;
};

// The index of each file, in the state in which it was read last. Of all threads.
class LdifIndexes
{
 public:
    // Null when the file has not been found sound in that state.
    [[nodiscard]] std::shared_ptr<const LdifIndex> Get(const std::string& path,
                                                       const struct stat& state);
    void Put(const std::string& path, const struct stat& state,
             std::shared_ptr<const LdifIndex> index);

 private:
    struct Known {
        struct stat state {
        };
        std::shared_ptr<const LdifIndex> index;
    };
    std::mutex mutex_;
    std::map<std::string, Known> files_;
};

}  // namespace dl
