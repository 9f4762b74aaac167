// Works: what several messages have brought forth and their removal, in one durable transaction.
#include "platform/metrics/metrics.h"
#include "platform/queue/sqlite_queue_private.h"

namespace dl
{

bool SqliteQueue::Prepare(const std::vector<PendingEntry*>& entries)
{
    if (!Usable())
        return false;
    std::vector<GroupEntry> group;
    group.reserve(entries.size());
    for (const PendingEntry* entry : entries)
        group.push_back({.entry = entry});
    SyncGroup(&group);
    bool done = true;
    for (std::size_t i = 0; i < group.size(); ++i) {
        entries[i]->bytes = group[i].bytes;
        if (!group[i].cause.empty())
            TellUnpublished(*entries[i], group[i].cause);
        done = done && group[i].cause.empty();
    }
    return done;
}

bool SqliteQueue::Commit(const std::vector<const WorkPart*>& parts)
{
    if (!Usable())
        return false;
    const std::lock_guard<std::mutex> guard(mutex_);
    Removals removals;
    bool done = false;
    {
        Transaction transaction(index_, Durable::kPower);
        done = transaction.Begun();
        for (const WorkPart* part : parts)
            done = done && WritePart(*part, &removals);
        done = done && transaction.Commit();
    }
    if (!done) {
        Complain("What was made of %s cannot be written to the message queue: %s",
                 Named(parts).c_str(),
                 removals.missing ? "it is not this reader's any more" : Cause().c_str());
        return false;
    }
    for (const WorkPart* part : parts)
        for (const PendingEntry& entry : part->published)
            files_.Release(entry.id);
    Finish(removals);
    files_.TellNews();
    EraseRemoved(true);
    return true;
}

bool SqliteQueue::WritePart(const WorkPart& part, Removals* removals)
{
    for (const PendingEntry& entry : part.published)
        if (!InsertEntry(entry, entry.bytes))
            return false;
    for (const WorkPart::Message& message : part.removed) {
        const auto place = readers_.find(message.reader);
        removals->missing = place == readers_.end();
        if (removals->missing || !RemoveRow(place->second, message.id, removals) ||
            removals->missing)
            return false;
    }
    for (const WorkPart::Postponement& one : part.postponed) {
        DeliveryStep step;
        step.id = one.message.id;
        step.problem = one.problem;
        step.end = DeliveryStep::End::kPutBack;
        step.due = one.due;
        if (!RecordStep(one.message.reader, step, removals))
            return false;
    }
    for (const WorkPart::Mark& mark : part.marks) {
        const bool done = mark.value
                              ? Query(index_, "INSERT OR REPLACE INTO mark VALUES (?1, ?2)",
                                      mark.name, *mark.value)
                                    .Done()
                              : Query(index_, "DELETE FROM mark WHERE name = ?1", mark.name).Done();
        if (!done)
            return false;
    }
    return true;
}

std::string SqliteQueue::Named(const std::vector<const WorkPart*>& parts)
{
    for (const WorkPart* part : parts)
        if (!part->removed.empty())
            return "message " + EntryFiles::FileName(part->removed.front().id, "") +
                   (parts.size() > 1 ? " and others" : "");
    return "a schedule";
}

bool SqliteQueue::ReadMarks(const std::string& prefix, std::map<std::string, std::string>* marks)
{
    if (!Usable())
        return false;
    const std::lock_guard<std::mutex> guard(mutex_);
    index_.ClearFailure();
    Query query(index_, "SELECT name, value FROM mark WHERE substr(name, 1, length(?1)) = ?1",
                prefix);
    while (query.Row())
        (*marks)[std::string(query.Bytes(0))] = query.Bytes(1);
    return !query.Failed();  // asked each second: who takes messages off the queue says why
}

bool SqliteQueue::IsSuspect(std::int64_t reader, std::uint32_t id)
{
    if (!Usable())
        return true;
    const std::lock_guard<std::mutex> guard(mutex_);
    index_.ClearFailure();
    Query query(index_, "SELECT suspect FROM chan WHERE entry = ?1 AND owner = ?2", id, reader);
    return !query.Row() || query.Int(0) != 0;  // by itself is never wrong
}

bool SqliteQueue::Blame(std::int64_t reader, std::uint32_t id, std::int64_t due)
{
    if (!Usable())
        return false;
    const std::lock_guard<std::mutex> guard(mutex_);
    bool done = false;
    {
        Transaction transaction(index_, Durable::kProcess);
        done = transaction.Begun() &&
               Query(index_,
                     "UPDATE chan SET owner = NULL, suspect = 1, attempts = attempts + 1,"
                     " due = ?3 WHERE entry = ?1 AND owner = ?2",
                     id, reader, due)
                   .Done() &&
               transaction.Commit();
    }
    if (!done)
        Complain("The failed attempt of message %08X cannot be counted: %s",
                 static_cast<unsigned>(id), Cause().c_str());
    return done;
}

}  // namespace dl
