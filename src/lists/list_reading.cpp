#include "lists/list_reading.h"

#include <algorithm>

#include "platform/address/address.h"
#include "platform/clock/clock.h"
#include "platform/config/data_path.h"
#include "platform/log/log.h"

namespace dl
{
namespace
{

constexpr char kAllLists[] = "objectclass=qvlist";

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

ListReading::ListReading(const std::deque<_mailinglist>& records, bool stamped)
    : records_(records), stamped_(stamped), stamps_(Now()), kept_(records.size())
{
    for (std::size_t i = 0; i < records.size(); ++i) {
        by_dn_.emplace(records[i].origin.dn, static_cast<std::int32_t>(i));
        by_name_.emplace(records[i].name, static_cast<std::int32_t>(i));
    }
}

bool ListReading::ReadAll(ldapClient* client)
{
    lists_.clear();
    fresh_.clear();
    kept_.assign(records_.size(), false);
    any_ = false;
    has_read_all_ = true;
    SearchQuery query{.filter = kAllLists, .attributes = ChangeStamps::Attributes()};
    query.attributes.emplace_back("*");
    return client->ForEachEntry(query, &names_, [this](SearchEntry&& entry) {
        any_ = true;
        if (FirstMail(entry))
            Take(std::move(entry), &lists_.emplace_back());
    });
}

bool ListReading::ReadChanges(ldapClient* client)
{
    const auto has_stamp = [](const _mailinglist& record) { return !record.origin.stamp.empty(); };
    if (std::none_of(records_.begin(), records_.end(), has_stamp))
        return ReadAll(client);
    Places changed;
    std::vector<std::string> addresses;
    SearchQuery query{.filter = kAllLists, .attributes = ChangeStamps::Attributes()};
    query.attributes.emplace_back("mail");
    if (!client->ForEachEntry(query, &names_, [&](SearchEntry&& entry) {
            TakeName(std::move(entry), &changed, &addresses);
        }))
        return false;
    if (addresses.size() > lists_.size() / 2)
        return ReadAll(client);
    if (!ReadByAddress(client, addresses, &changed))
        return false;
    // A list that was there is not any more, or has another address: another look at all of them.
    return changed.empty() || ReadAll(client);
}

void ListReading::TakeName(SearchEntry&& entry, Places* changed,
                           std::vector<std::string>* addresses)
{
    any_ = true;
    const std::string stamp = stamps_.Take(&entry);
    const std::string* mail = FirstMail(entry);
    if (!mail)
        return;
    List& list = lists_.emplace_back();
    const std::int32_t record = Find(entry.dn, [&](const _mailinglist& one) {
        return !stamp.empty() && one.origin.stamp == stamp;
    });
    if (record != kNone) {
        list.stamp = stamp;
        Keep(record, &list);
        return;
    }
    changed->emplace(entry.dn, lists_.size() - 1);
    addresses->push_back(*mail);
}

bool ListReading::ReadByAddress(ldapClient* client, const std::vector<std::string>& addresses,
                                Places* changed)
{
    constexpr std::size_t kAtOnce = 100;
    SearchQuery query{.filter = "", .attributes = ChangeStamps::Attributes()};
    query.attributes.emplace_back("*");
    for (std::size_t next = 0; next < addresses.size();) {
        query.filter = "(&(objectclass=qvlist)(|";
        for (const std::size_t end = next + kAtOnce; next < addresses.size() && next < end; ++next)
            query.filter += "(mail=" + EscapeFilterValue(addresses[next]) + ")";
        query.filter += "))";
        const auto take = [&](SearchEntry&& entry) {
            const auto place = changed->find(entry.dn);
            if (place == changed->end() || !FirstMail(entry))
                return;  // another list with that address, or one that is asked for later
            Take(std::move(entry), &lists_[place->second]);
            changed->erase(place);
        };
        if (!client->ForEachEntry(query, &names_, take))
            return false;
    }
    return true;
}

void ListReading::KeepAll()
{
    any_ = true;
    for (std::size_t i = 0; i < records_.size(); ++i)
        Keep(static_cast<std::int32_t>(i), &lists_.emplace_back());
}

// Of several records of one entry's name, as a file may hold them, each is kept once.
template <typename Same>
std::int32_t ListReading::Find(const std::string& dn, const Same& same) const
{
    const auto [begin, end] = by_dn_.equal_range(dn);
    const auto found = std::find_if(begin, end, [&](const auto& place) {
        const auto record = static_cast<std::size_t>(place.second);
        return !kept_[record] && same(records_[record]);
    });
    return found == end ? kNone : found->second;
}

void ListReading::Keep(std::int32_t record, List* list)
{
    list->kept = record;
    kept_[static_cast<std::size_t>(record)] = true;
}

void ListReading::Take(SearchEntry&& entry, List* list)
{
    std::string stamp = stamps_.Take(&entry);
    if (stamped_)
        list->stamp = std::move(stamp);
    const std::uint64_t hash = HashOf(entry);
    const std::int32_t record =
        Find(entry.dn, [hash](const _mailinglist& one) { return one.origin.hash == hash; });
    if (record != kNone)
        return Keep(record, list);
    list->fresh = static_cast<std::int32_t>(fresh_.size());
    Fresh& fresh = fresh_.emplace_back();
    fresh.record.name = *FirstMail(entry);
    fresh.record.origin.dn = entry.dn;
    fresh.record.origin.hash = hash;
    fresh.entry = std::move(entry);
    TakeMembers(fresh.record.name, &fresh.entry, &fresh.record);
    ShareMembers(&fresh.record);
}

// Old and new lists lie in memory together for a while. Most members of a list that has changed, or
// moved, are in both.
void ListReading::ShareMembers(_mailinglist* fresh) const
{
    const auto same_name = by_name_.find(fresh->name);
    const auto same_dn = by_dn_.find(fresh->origin.dn);
    if (same_name == by_name_.end() && same_dn == by_dn_.end())
        return;
    const std::int32_t place = same_dn != by_dn_.end() ? same_dn->second : same_name->second;
    const _mailinglist& old = records_[static_cast<std::size_t>(place)];
    fresh->digest_members.ShareWith(old.digest_members);
    fresh->immediate_members.ShareWith(old.immediate_members);
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
    const std::string data_path = DataPath();
    for (std::size_t i = 0; i < kept_.size(); ++i)
        if (kept_[i])
            SeedDigestSchedule(records_[i], data_path);
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
    List& one = lists_[list];
    *to = one.kept != kNone ? std::move((*records)[static_cast<std::size_t>(one.kept)])
                            : std::move(fresh_[static_cast<std::size_t>(one.fresh)].record);
    to->owner.reset();  // it may be another one now
    to->origin.stamp = std::move(one.stamp);
}

}  // namespace dl
