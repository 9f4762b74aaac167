// ListReading: the directory's whole answer about the lists, before a cache takes anything of it.
//
// Made by a cache for one refresh over the records that it has, and dropped after it. Read takes
// the answer to its end, Load makes records of the lists that are new or have changed, Give hands
// each list over; until then the cache's records are as they were. An entry whose hash is that of a
// record's is not loaded again. Throws std::bad_alloc. Load logs; a failed search has been logged
// by the directory alone. One thread.
#pragma once

#include <cstdint>
#include <deque>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "lists/mailing_list.h"
#include "platform/directory/directory.h"

namespace dl
{

class ListReading
{
 public:
    // `records` outlive the reading.
    explicit ListReading(const std::deque<_mailinglist>& records);
    ListReading(const ListReading&) = delete;
    ListReading& operator=(const ListReading&) = delete;

    // False when the directory gave no whole answer.
    [[nodiscard]] bool Read(ldapClient* client);
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
    // In the order of the answer: one of the cache's records, or one of fresh_.
    struct List {
        std::int32_t kept = kNone;
        std::int32_t fresh = kNone;
    };
    struct Fresh {
        SearchEntry entry;  // without members
        _mailinglist record;
    };
    void Take(SearchEntry&& entry);
    [[nodiscard]] std::int32_t Unchanged(const std::string& dn, std::uint64_t hash) const;

    const std::deque<_mailinglist>& records_;
    std::unordered_multimap<std::string_view, std::int32_t> by_dn_;  // of records_
    std::vector<bool> kept_;                                         // of records_
    NamePool names_;
    std::deque<Fresh> fresh_;
    std::vector<List> lists_;
    bool any_ = false;
};

// The entry's first address; null when it has none.
[[nodiscard]] const std::string* FirstMail(const SearchEntry& entry);

}  // namespace dl
