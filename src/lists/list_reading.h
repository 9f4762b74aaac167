// ListReading: the directory's whole answer about the lists, before a cache takes anything of it.
//
// Made by a cache for one refresh over the records that it has, and dropped after it. One of the
// Read functions takes the answer to its end, Load makes records of the lists that are new or have
// changed, Give hands each list over, in the order of the answer; until then the cache's records
// are as they were. A list is kept, and not loaded again, when its entry has the stamp, or else the
// hash, of its record. Throws std::bad_alloc. Load logs; a failed search has been logged by the
// directory alone. One thread.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "lists/change_stamp.h"
#include "lists/mailing_list.h"
#include "platform/directory/directory.h"

namespace dl
{

class ListReading
{
 public:
    // `records` outlive the reading. `stamped`: the directory stamps each entry that changes.
    ListReading(const std::deque<_mailinglist>& records, bool stamped);
    ListReading(const ListReading&) = delete;
    ListReading& operator=(const ListReading&) = delete;

    // Every entry; false when the directory gave no whole answer.
    [[nodiscard]] bool ReadAll(ldapClient* client);
    // Addresses and stamps, then the entries that these do not show to be as they were. Result as
    // of ReadAll, which it uses when that is less work.
    [[nodiscard]] bool ReadChanges(ldapClient* client);
    // Nothing: the directory is as it was when the records were loaded.
    void KeepAll();
    [[nodiscard]] bool HasReadAll() const { return has_read_all_; }
    // The lines of the whole set, and of each list that is not kept.
    void Load();

    // True when the directory holds no entry of a list, not even one without an address.
    [[nodiscard]] bool Empty() const { return !any_; }
    [[nodiscard]] std::size_t Count() const { return lists_.size(); }
    [[nodiscard]] const std::string& Name(std::size_t list) const;
    // Moves the list's record to `to`; a kept one out of `records`, as the constructor got them.
    void Give(std::size_t list, std::deque<_mailinglist>* records, _mailinglist* to) noexcept;

 private:
    static constexpr std::int32_t kNone = -1;
    // One of the cache's records, or one of fresh_; neither while it is only known to have changed.
    struct List {
        std::int32_t kept = kNone;
        std::int32_t fresh = kNone;
        std::string stamp;
    };
    using Places = std::unordered_map<std::string, std::size_t>;  // in lists_, by dn
    struct Fresh {
        SearchEntry entry;  // without members
        _mailinglist record;
    };
    void Take(SearchEntry&& entry, List* list);
    void TakeName(SearchEntry&& entry, Places* changed, std::vector<std::string>* addresses);
    [[nodiscard]] bool ReadByAddress(ldapClient* client, const std::vector<std::string>& addresses,
                                     Places* changed);
    // The record of this entry that is as `same` says, and not kept yet; kNone when there is none.
    template <typename Same>
    [[nodiscard]] std::int32_t Find(const std::string& dn, const Same& same) const;
    void Keep(std::int32_t record, List* list);
    void ShareMembers(_mailinglist* fresh) const;

    const std::deque<_mailinglist>& records_;
    const bool stamped_;
    const ChangeStamps stamps_;
    std::unordered_multimap<std::string_view, std::int32_t> by_dn_;  // of records_
    std::unordered_map<std::string_view, std::int32_t> by_name_;     // of records_
    std::vector<bool> kept_;                                         // of records_
    NamePool names_;
    std::deque<Fresh> fresh_;
    std::vector<List> lists_;
    bool any_ = false;
    bool has_read_all_ = false;
};

// The entry's first address; null when it has none.
[[nodiscard]] const std::string* FirstMail(const SearchEntry& entry);

}  // namespace dl
