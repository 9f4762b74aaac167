#include "lists/list_reading.h"

#include "platform/address/address.h"
#include "platform/log/log.h"

namespace dl
{
namespace
{

// Of all values, in their order. Two entries of one hash would hide a change until the next one;
// nobody gains by that.
std::uint64_t HashOf(const SearchEntry& entry)
{
    std::uint64_t hash = entry.attributes.size();
    const auto add = [&hash](std::string_view text) {
        hash = (hash ^ std::hash<std::string_view>{}(text)) * 0x9FB21C651E98DF25U;
        hash ^= hash >> 32U;
    };
    for (const SearchAttribute& attribute : entry.attributes) {
        add(attribute.name);
        add(attribute.value);
    }
    return hash;
}

}  // namespace

const std::string* FirstMail(const SearchEntry& entry)
{
    for (const SearchAttribute& attribute : entry.attributes)
        if (EqualNoCase(attribute.name, "mail"))
            return &attribute.value;
    return nullptr;
}

ListReading::ListReading(const std::deque<_mailinglist>& records)
    : records_(records), kept_(records.size())
{
    for (std::size_t i = 0; i < records.size(); ++i)
        by_dn_.emplace(records[i].origin.dn, static_cast<std::int32_t>(i));
}

bool ListReading::Read(ldapClient* client)
{
    return client->ForEachEntry({.filter = "objectclass=qvlist"}, &names_,
                                [this](SearchEntry&& entry) { Take(std::move(entry)); });
}

// Of several records of one name of an entry, as a file may hold them, each is kept once.
std::int32_t ListReading::Unchanged(const std::string& dn, std::uint64_t hash) const
{
    const auto [begin, end] = by_dn_.equal_range(dn);
    for (auto found = begin; found != end; ++found) {
        const auto place = static_cast<std::size_t>(found->second);
        if (records_[place].origin.hash == hash && !kept_[place])
            return found->second;
    }
    return kNone;
}

void ListReading::Take(SearchEntry&& entry)
{
    any_ = true;
    const std::string* mail = FirstMail(entry);
    if (!mail)
        return;
    List list;
    const std::uint64_t hash = HashOf(entry);
    list.kept = Unchanged(entry.dn, hash);
    if (list.kept != kNone) {
        kept_[static_cast<std::size_t>(list.kept)] = true;
    } else {
        list.fresh = static_cast<std::int32_t>(fresh_.size());
        Fresh& fresh = fresh_.emplace_back();
        fresh.record.name = *mail;
        fresh.record.origin = {entry.dn, hash};
        fresh.entry = std::move(entry);
        TakeMembers(fresh.record.name, &fresh.entry, &fresh.record);
    }
    lists_.push_back(list);
}

void ListReading::Load()
{
    for (const Fresh& fresh : fresh_)
        DlLog(6, "Found mailing list %s", fresh.record.name.c_str());
    DlLog(6, "%d mailing list(s) are found in Directory Server", static_cast<int>(Count()));
    for (Fresh& fresh : fresh_) {
        const std::string name = fresh.record.name;
        DlLog(6, "Try loading all list members for mailing list %s", name.c_str());
        LoadMailingList(name, &fresh.entry, &fresh.record);
        fresh.entry = SearchEntry();
    }
    for (std::size_t i = 0; i < kept_.size(); ++i)
        if (kept_[i])
            SeedDigestSchedule(records_[i]);
}

const std::string& ListReading::Name(std::size_t list) const
{
    const List& one = lists_[list];
    return one.kept != kNone ? records_[static_cast<std::size_t>(one.kept)].name
                             : fresh_[static_cast<std::size_t>(one.fresh)].record.name;
}

void ListReading::Give(std::size_t list, std::deque<_mailinglist>* records,
                       _mailinglist* to) noexcept
{
    const List& one = lists_[list];
    if (one.fresh != kNone) {
        *to = std::move(fresh_[static_cast<std::size_t>(one.fresh)].record);
        return;
    }
    *to = std::move((*records)[static_cast<std::size_t>(one.kept)]);
    to->owner.reset();  // it may be another one now
}

}  // namespace dl
