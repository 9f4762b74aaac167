// The operations of dllist that ask the directory for lists.

#include <new>
#include <type_traits>

#include "lists/directory_access.h"
#include "lists/dllist.h"
#include "lists/list_reading.h"
#include "lists/within_memory.h"
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

constexpr int kSubtree = 2;

void LogNoAnswer()
{
    DlLog(1, "Could not read the mailing lists from Directory Server");
}

void LogNoLists()
{
    DlLog(6, "There is no mailing listing available in the Directory Server");
}

void LogShortMemory()
{
    DlLog(1, "Out of memory, unable to allocate space to hold mailing list entry");
}

// Whether there is a list at all. False when the search failed.
bool FindAnyList(ldapClient* client, bool* found)
{
    NamePool names;
    return client->ForEachEntry(
        {.filter = "objectclass=qvlist", .attributes = {"mail"}, .limit = 1}, &names,
        [found](SearchEntry&&) { *found = true; });
}

}  // namespace

// The archive worker has a cache of its own, which nobody is answered from.
void dllist::CountRefresh(bool done) const
{
    if (this != &ListCache())
        return;
    dl::Count(done ? Metric::kRefreshes : Metric::kRefreshesFailed);
    SetGauge(Metric::kWaitsForDirectory, WaitsForDirectory() ? 1 : 0);
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

bool dllist::InitCache()
{
    const auto load = [this] {
        ldapClient client;
        return Connect(&client) && Reload(&client, false);
    };
    const bool done = WithinMemory(false, load, LogShortMemory);
    // Also after half an answer and out of memory: without lists, the main loop must wait then and
    // not answer every posting as sent to an unknown list.
    directory_reachable_ = done;
    CountRefresh(done);
    return done;
}

bool dllist::RefreshCache()
{
    bool reached = false;
    const auto refresh = [&] {
        const DirectoryLogin login = ReadDirectoryLogin(kMainConfig);
        ldapClient client;
        reached = client.ldapClientConnect(login.host, login.port) == 0 &&
                  client.ldapClientBind(login.user, login.password) == 0;
        return reached && Reload(&client, true);
    };
    const bool done = WithinMemory(false, refresh, LogShortMemory);
    if (done)
        directory_reachable_ = true;
    refresh_failed_ = !done;
    CountRefresh(done);
    return done || !reached;
}

// A file is read when it is in another state. A server is asked for what has changed; once an hour
// for everything, since what the service may read can change without a trace in the entries.
bool dllist::ReadLists(ldapClient* client, const DirectoryMark& mark, ListReading* reading) const
{
    constexpr std::time_t kWholeReadings = 3600;
    const std::time_t passed = Now() - last_whole_reading_;
    if (!loaded_ || mark != mark_)
        return reading->ReadAll(client);
    if (mark.state.empty())
        return passed >= 0 && passed < kWholeReadings ? reading->ReadChanges(client)
                                                      : reading->ReadAll(client);
    if (appended_)
        return reading->ReadAll(client);
    reading->KeepAll();
    return true;
}

bool dllist::Reload(ldapClient* client, bool keep)
{
    static const std::deque<_mailinglist> kNoRecords;
    DirectoryMark mark = client->Mark();
    const std::time_t begin = Now();
    ListReading reading(keep ? records_ : kNoRecords, mark.state.empty());
    const bool whole = keep ? ReadLists(client, mark, &reading) : reading.ReadAll(client);
    client->ldapClientUnbind();
    if (!whole) {
        LogNoAnswer();
        return false;
    }
    if (reading.Empty()) {
        LogNoLists();
        DeleteCache();
    } else {
        reading.Load();
        Replace(&reading);
    }
    mark_ = std::move(mark);
    appended_ = false;
    if (reading.HasReadAll())
        last_whole_reading_ = begin;
    answered_ = true;
    pause_.Answered();
    return true;
}

// Everything that can fail comes before the old records go.
void dllist::Replace(ListReading* reading)
{
    static_assert(std::is_nothrow_move_assignable_v<_mailinglist>);
    std::deque<_mailinglist> records(reading->Count());
    ListIndex index;
    index.reserve(records.size());
    for (std::size_t i = 0; i < records.size(); ++i)
        index.emplace(reading->Name(i), static_cast<std::int32_t>(i));
    for (std::size_t i = 0; i < records.size(); ++i)
        reading->Give(i, &records_, &records[i]);
    records_.swap(records);
    index_.swap(index);
    loaded_ = true;
}

bool dllist::MayLookUp()
{
    look_up_failed_ = pause_.Runs();
    return !look_up_failed_;
}

bool dllist::EndLookUp(Found found)
{
    look_up_failed_ = found == Found::kNoAnswer;
    if (look_up_failed_)
        pause_.Failed();
    else
        pause_.Answered();
    return found == Found::kYes;
}

bool dllist::LoadWhenEmpty()
{
    return !CacheEmpty() ||
           (MayLookUp() && EndLookUp(InitCache() ? Found::kYes : Found::kNoAnswer));
}

bool dllist::AddCache(const std::string& list)
{
    const auto short_memory = [] {
        DlLog(6,
              "Out of memory, realloc failed, unable to create space to hold the mailing list "
              "entry.");
    };
    const auto find = [&] { return FindList(list); };
    return MayLookUp() && EndLookUp(WithinMemory(Found::kNoAnswer, find, short_memory));
}

dllist::Found dllist::FindList(const std::string& list)
{
    ldapClient client;
    if (!Connect(&client))
        return Found::kNoAnswer;
    SearchReq found = client.ldapClientSearch(
        nullptr, kSubtree, false,
        FormatText("(&(objectclass=qvlist)(mail=%s))", EscapeFilterValue(list).c_str()));
    // A directory from which lists were loaded is known to hold some.
    bool some = !found.Empty() || Count() > 0;
    if (found.failed || (!some && !FindAnyList(&client, &some))) {
        LogNoAnswer();
        return Found::kNoAnswer;
    }
    client.ldapClientUnbind();
    if (!some)
        LogNoLists();
    std::deque<_mailinglist> lists;
    for (SearchEntry& entry : found.entries) {
        const std::string* mail = FirstMail(entry);
        if (!mail || !EqualNoCase(*mail, list))
            continue;
        DlLog(6, "Found mailing list %s", mail->c_str());
        _mailinglist& record = lists.emplace_back();
        record.spelling = *mail;
        LoadMailingList(list, &entry, &record);
    }
    if (lists.empty())
        return Found::kNo;
    Append(&lists);
    return Found::kYes;
}

// All of them or, out of memory, none.
void dllist::Append(std::deque<_mailinglist>* lists)
{
    const std::size_t before = records_.size();
    const auto [place, is_new] =
        index_.emplace(lists->front().name, static_cast<std::int32_t>(before));
    try {
        for (_mailinglist& list : *lists)
            records_.push_back(std::move(list));
    } catch (const std::bad_alloc&) {
        while (records_.size() > before)
            records_.pop_back();
        if (is_new)
            index_.erase(place);
        throw;
    }
    loaded_ = true;
    appended_ = true;
    list_cursor_ = Count() - 1;
    if (this == &ListCache())
        CountMembers();
}

}  // namespace dl
