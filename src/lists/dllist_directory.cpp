// The operations of dllist that ask the directory.

#include <new>

#include "lists/directory_access.h"
#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/clock/clock.h"
#include "platform/config/config.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "platform/metrics/metrics.h"

namespace dl
{
namespace
{

constexpr char kAllLists[] = "objectclass=qvlist";
constexpr int kSubtree = 2;

const std::string* FirstMail(const SearchEntry& entry)
{
    for (const SearchAttribute& attribute : entry.attributes)
        if (EqualNoCase(attribute.name, "mail"))
            return &attribute.value;
    return nullptr;
}

std::string PostmasterAddress()
{
    const auto read = [](const char* key) {
        return GetPrivateProfileString("Connection", key, "", 128, kMainConfig);
    };
    return FormatText("postmaster@%s.%s", read("GatewayHostName").c_str(),
                      read("GatewayDomain").c_str());
}

// The owner's address among the alias entries: an alias and an owner need not stand in the same
// entry.
const std::string* FindOwner(const SearchReq& found, const std::string& alias)
{
    bool matched = false;
    const std::string* owner = nullptr;
    for (const SearchEntry& entry : found.entries) {
        for (const SearchAttribute& attribute : entry.attributes) {
            if (EqualNoCase(attribute.name, "mail") && EqualNoCase(attribute.value, alias))
                matched = true;
            else if (EqualNoCase(attribute.name, "listowner"))
                owner = &attribute.value;
        }
        if (matched && owner)
            return owner;
    }
    return nullptr;
}

}  // namespace

// The archive worker has a cache of its own, which nobody is answered from.
void dllist::CountRefresh(bool done) const
{
    if (this != &ListCache())
        return;
    dl::Count(done ? Metric::kRefreshes : Metric::kRefreshesFailed);
    if (!done)
        return;
    SetGauge(Metric::kLastRefresh, Now());
    CountMembers();
}

void dllist::CountMembers() const
{
    std::size_t members = 0;
    for (const _mailinglist& record : records_)
        members += record.immediate_members.Count() + record.digest_members.Count();
    SetGauge(Metric::kLists, Count());
    SetGauge(Metric::kMembers, static_cast<std::int64_t>(members));
}

bool dllist::Connect(ldapClient* client)
{
    directory_reachable_ = OpenDirectory(client);
    look_up_failed_ = !directory_reachable_;
    return directory_reachable_;
}

bool dllist::FindLists(SearchReq* found)
{
    ldapClient client;
    if (!Connect(&client))
        return false;
    *found = client.ldapClientSearch(nullptr, kSubtree, false, kAllLists);
    client.ldapClientUnbind();
    look_up_failed_ = found->failed;
    if (found->failed)
        DlLog(1, "Could not read the mailing lists from Directory Server");
    return !found->failed;
}

bool dllist::InitCache()
{
    const bool done = ReadLists();
    CountRefresh(done);
    return done;
}

bool dllist::ReadLists()
{
    DeleteCache();
    SearchReq found;
    if (!FindLists(&found)) {
        // Taken as "no lists", half an answer would bounce every posting as sent to an unknown
        // list.
        directory_reachable_ = false;
        return false;
    }
    return Load(&found);
}

// A search for the names alone shows whether the directory gives a whole answer, before the old
// lists go: with all values, both generations of the lists would lie in memory at once.
bool dllist::RefreshCache()
{
    const DirectoryLogin login = ReadDirectoryLogin(kMainConfig);
    {
        ldapClient client;
        if (client.ldapClientConnect(login.host, login.port) != 0 ||
            client.ldapClientBind(login.user, login.password) != 0) {
            CountRefresh(false);
            return true;
        }
        const SearchReq names = client.ldapClientSearch(nullptr, kSubtree, true, kAllLists);
        client.ldapClientUnbind();
        if (names.failed) {
            DlLog(1, "Could not read the mailing lists from Directory Server");
            CountRefresh(false);
            return false;
        }
    }
    DeleteCache();
    return InitCache();
}

// Fills the empty cache. Each entry is given back as soon as its list stands, so that both never
// lie in memory whole.
bool dllist::Load(SearchReq* found)
{
    if (found->Empty()) {
        DlLog(6, "There is no mailing listing available in the Directory Server");
        return true;
    }
    int count = 0;
    for (const SearchEntry& entry : found->entries) {
        if (const std::string* mail = FirstMail(entry)) {
            DlLog(6, "Found mailing list %s", mail->c_str());
            ++count;
        }
    }
    DlLog(6, "%d mailing list(s) are found in Directory Server", count);
    try {
        for (SearchEntry& entry : found->entries) {
            if (const std::string* mail = FirstMail(entry)) {
                const std::string name = *mail;
                DlLog(6, "Try loading all list members for mailing list %s", name.c_str());
                LoadMailingList(name, &entry, &records_.emplace_back());
                AddToIndex(Count() - 1);
            }
            entry = SearchEntry();
        }
    } catch (const std::bad_alloc&) {
        DlLog(1, "Out of memory, unable to allocate space to hold mailing list entry");
        DeleteCache();
        return false;
    }
    loaded_ = true;
    return true;
}

bool dllist::AddCache(const std::string& list)
{
    SearchReq found;
    if (!FindLists(&found))
        return false;
    if (found.Empty()) {
        DlLog(6, "There is no mailing listing available in the Directory Server");
        return false;
    }
    bool added = false;
    for (SearchEntry& entry : found.entries) {
        const std::string* mail = FirstMail(entry);
        if (!mail || !EqualNoCase(*mail, list))
            continue;
        const std::string spelling = *mail;
        DlLog(6, "Found mailing list %s", spelling.c_str());
        const std::size_t before = records_.size();
        try {
            _mailinglist& record = records_.emplace_back();
            LoadMailingList(list, &entry, &record);
            record.spelling = spelling;
            AddToIndex(Count() - 1);
        } catch (const std::bad_alloc&) {
            records_.resize(before);
            DlLog(6,
                  "Out of memory, realloc failed, unable to create space to hold the mailing "
                  "list entry.");
            return false;
        }
        loaded_ = true;
        list_cursor_ = Count() - 1;
        added = true;
    }
    if (added && this == &ListCache())
        CountMembers();
    return added;
}

const char* dllist::GetListOwner(const std::string& list)
{
    const std::int32_t index = Find(list);
    look_up_failed_ = false;
    if (index < 0)
        return nullptr;
    _mailinglist* record = &records_[static_cast<std::size_t>(index)];
    if (!record->owner && !LookUpOwner(record))
        return nullptr;
    return record->owner->c_str();
}

bool dllist::LookUpOwner(_mailinglist* record)
{
    RT parsed;
    ldapClient client;
    if (!Connect(&client) || RecipParse(record->name, &parsed, 1) != 1)
        return false;
    const std::string local = parsed.addresses[0].local;
    const std::string domain = parsed.addresses[0].domain;
    Clear_RT(&parsed);
    const std::string filter =
        FormatText("(&(objectclass=qvlistowner)(mail=%s-owner@%s))",
                   EscapeFilterValue(local).c_str(), EscapeFilterValue(domain).c_str());
    const SearchReq found = client.ldapClientSearch(nullptr, kSubtree, false, filter);
    client.ldapClientUnbind();
    look_up_failed_ = found.failed;
    if (found.failed) {
        // Not the same as "no alias": the postmaster would get the list's mail until the next
        // refresh.
        DlLog(1, "Could not look up the owner of mailing list %s", record->name.c_str());
        return false;
    }
    if (found.Empty()) {
        DlLog(1, "Missing list-owner alias for %s, use postmaster instead.", record->name.c_str());
        record->owner = PostmasterAddress();
        return true;
    }
    const std::string* owner =
        FindOwner(found, FormatText("%s-owner@%s", local.c_str(), domain.c_str()));
    if (!owner)
        return false;
    record->owner = *owner;
    DlLog(6, "List owner is: %s", owner->c_str());
    return true;
}

}  // namespace dl
