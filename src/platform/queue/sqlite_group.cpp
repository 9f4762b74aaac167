// Several entries that are ready at the same moment share what waiting for the disk costs: all
// message files are put on their way together, the folder is synced once, one commit holds all.
#include "platform/queue/sqlite_queue_private.h"

namespace dl
{

std::vector<bool> SqliteQueue::PublishMany(const std::vector<const PendingEntry*>& entries)
{
    std::vector<bool> results(entries.size(), false);
    if (!Usable())
        return results;
    std::vector<GroupEntry> group;
    group.reserve(entries.size());
    for (const PendingEntry* entry : entries)
        group.push_back({.entry = entry});
    SyncGroup(&group);  // outside the lock, as in Publish
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!CommitGroup(&group)) {
        // One of them may be at fault, and the others must not wait for its end.
        for (GroupEntry& item : group) {
            if (!item.cause.empty())
                continue;
            item.done = CommitEntry(*item.entry, item.bytes);
            if (!item.done)
                item.cause = Cause();
        }
    }
    bool some = false;
    for (std::size_t i = 0; i < group.size(); ++i) {
        FinishEntry(*group[i].entry, group[i].done, group[i].cause);
        results[i] = group[i].done;
        some = some || group[i].done;
    }
    if (some) {
        files_.TellNews();
        EraseRemoved(true);
    }
    return results;
}

void SqliteQueue::SyncGroup(std::vector<GroupEntry>* group) const
{
    for (const GroupEntry& item : *group)
        files_.BeginSync(item.entry->id);
    for (GroupEntry& item : *group) {
        if (item.entry->channels.empty())
            item.cause = "it is in no channel";
        else
            (void)files_.SyncMessage(item.entry->id, &item.bytes, &item.cause);  // fills the cause
    }
    std::string cause;
    if (files_.SyncFolder(&cause))
        return;
    for (GroupEntry& item : *group)
        if (item.cause.empty())
            item.cause = cause;
}

// All that are synced or none. A failure that is the index's own is the cause for all.
bool SqliteQueue::CommitGroup(std::vector<GroupEntry>* group)
{
    bool done = false;
    bool begun = false;
    {
        Transaction transaction(index_, Durable::kPower);
        begun = transaction.Begun();
        for (const GroupEntry& item : *group)
            if (begun && item.cause.empty())
                InsertEntry(*item.entry, item.bytes);
        done = transaction.Commit();
    }
    for (GroupEntry& item : *group) {
        if (!item.cause.empty())
            continue;
        item.done = done;
        if (!begun)
            item.cause = Cause();
    }
    return done;
}

}  // namespace dl
