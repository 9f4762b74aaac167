#include <algorithm>

#include "platform/metrics/metrics.h"
#include "platform/queue/room.h"
#include "platform/queue/sqlite_queue_private.h"

namespace dl
{

QueueAnswer SqliteQueue::AnythingDue(std::int64_t reader, std::int64_t now, std::int64_t* closed)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto place = readers_.find(reader);
    if (place == readers_.end() || !Usable())
        return QueueAnswer::kFailed;
    index_.ClearFailure();
    Query query(index_,
                "SELECT EXISTS (SELECT 1 FROM chan INDEXED BY chan_ready WHERE channel = ?1 AND"
                " owner IS NULL AND due = 0) OR EXISTS (SELECT 1 FROM chan INDEXED BY chan_due"
                " WHERE channel = ?1 AND due > 0 AND (due <= ?2 OR due > ?2 + ?4)) OR EXISTS"
                " (SELECT 1 FROM chan INDEXED BY chan_owner WHERE owner IS NOT NULL AND"
                " channel = ?1 AND owner <> ?3)",
                place->second.channel, now, reader, place->second.longest_pause);
    if (query.Row()) {
        const bool any = query.Int(0) != 0;
        if (any && closed)
            *closed = FirstClosed(place->second.channel, now);
        return any ? QueueAnswer::kYes : QueueAnswer::kNo;
    }
    Complain("Channel %s of the message queue cannot be read: %s", place->second.channel.c_str(),
             Cause().c_str());
    return QueueAnswer::kFailed;
}

// Of an entry that is ready and one that has been put back, whichever is older.
std::int64_t SqliteQueue::FirstClosed(const std::string& channel, std::int64_t now)
{
    Query query(index_,
                "SELECT coalesce(min(closed), 0) FROM entry WHERE id IN ((SELECT entry FROM chan"
                " INDEXED BY chan_ready WHERE channel = ?1 AND owner IS NULL AND due = 0 ORDER BY"
                " suspect, attempts, seq LIMIT 1), (SELECT entry FROM chan INDEXED BY chan_due"
                " WHERE channel = ?1 AND due > 0 AND due <= ?2 ORDER BY due LIMIT 1))",
                channel, now);
    return query.Row() ? query.Int(0) : 0;
}

bool SqliteQueue::TakeDue(std::int64_t reader, std::int64_t now, std::size_t limit,
                          std::vector<DueEntry>* entries)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto place = readers_.find(reader);
    if (place == readers_.end() || !Usable())
        return false;
    std::vector<Taken> taken;
    const std::size_t before = entries->size();
    bool done = false;
    {
        Transaction transaction(index_, Durable::kProcess);
        done = transaction.Begun() && FreeDeadReaders() && WakeDue(place->second, now) &&
               TakeRows(place->second, limit, &taken, entries) && transaction.Commit();
    }
    if (!done) {
        entries->resize(before);
        Complain("Channel %s of the message queue cannot be read: %s",
                 place->second.channel.c_str(), Cause().c_str());
        return false;
    }
    for (const Taken& one : taken)
        TellHeld(place->second, one);
    return true;
}

// Suspects come behind all others, and one at a time.
bool SqliteQueue::TakeRows(const Reader& reader, std::size_t limit, std::vector<Taken>* taken,
                           std::vector<DueEntry>* entries)
{
    bool suspects = !HasSuspect(reader);
    for (std::size_t count = 0; count < limit;) {
        const Taken one = TakeRow(reader, suspects);
        if (one.how == Taken::kNone || one.how == Taken::kFailed)
            return one.how == Taken::kNone;
        suspects = suspects && !(one.how == Taken::kMessage && one.suspect);
        taken->push_back(one);
        if (one.how == Taken::kHeld)
            continue;
        Query entry(index_, "SELECT closed, recipients FROM entry WHERE id = ?1", one.id);
        if (!entry.Row())
            return false;
        entries->push_back({one.id, entry.Int(0), static_cast<std::uint32_t>(entry.Int(1))});
        ++count;
    }
    return true;
}

QueueAnswer SqliteQueue::ReadDelivery(unsigned long id, std::string* envelope,
                                      DeliveryRecord* record)
{
    const auto entry = static_cast<std::uint32_t>(id);
    const Found found = ReadEnvelope(entry, envelope);
    if (found != Found::kYes)
        return found == Found::kNo ? QueueAnswer::kNo : QueueAnswer::kFailed;
    const std::lock_guard<std::mutex> guard(mutex_);
    index_.ClearFailure();
    Query query(index_, "SELECT tries, problem, states FROM delivery WHERE entry = ?1", entry);
    if (query.Row()) {
        record->tries = static_cast<int>(query.Int(0));
        record->problem = query.Bytes(1);
        record->states = query.Bytes(2);
    }
    if (!index_.Failed())
        return QueueAnswer::kYes;
    Complain("The envelope of message %08X cannot be read: %s", static_cast<unsigned>(entry),
             Cause().c_str());
    return QueueAnswer::kFailed;
}

// Who comes first writes what all have brought meanwhile; the others wait for it. So answers that
// come together share one waiting for the disk.
bool SqliteQueue::Record(std::int64_t reader, std::span<const DeliveryStep> steps,
                         const PendingEntry* published)
{
    std::string cause;
    Recording mine{reader, steps, published, 0, false, false, {}};
    if (!Usable())
        return false;
    if (published && !files_.Sync(published->id, &mine.bytes, &cause)) {
        Complain("Message %08X was not put into the message queue: %s",
                 static_cast<unsigned>(published->id), cause.c_str());
        Withdraw(*published);
        return false;
    }
    std::unique_lock<std::mutex> lock(recordings_mutex_);
    recordings_.push_back(&mine);
    while (!mine.ended) {
        if (recording_) {
            recordings_change_.wait(lock);
            continue;
        }
        recording_ = true;
        std::vector<Recording*> together;
        together.swap(recordings_);
        lock.unlock();
        CommitRecordings(together);
        lock.lock();
        for (Recording* one : together)
            one->ended = true;
        recording_ = false;
        recordings_change_.notify_all();
    }
    return mine.done;
}

void SqliteQueue::CommitRecordings(const std::vector<Recording*>& together)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    bool done = false;
    {
        Transaction transaction(index_, Durable::kPower);
        done = transaction.Begun();
        for (Recording* one : together) {
            if (done && one->published)
                done = InsertEntry(*one->published, one->bytes);
            for (const DeliveryStep& step : one->steps)
                done = done && RecordStep(one->reader, step, &one->removals);
        }
        done = done && transaction.Commit();
    }
    if (!done)
        Complain("What became of %s cannot be written down: %s",
                 Named(together.front()->steps).c_str(), Cause().c_str());
    for (Recording* one : together) {
        one->done = done;
        if (done) {
            Finish(one->removals);
            for (const DeliveryStep& step : one->steps)
                Count(Metric::kHeld, step.end == DeliveryStep::End::kHold ? 1 : 0);
        }
        if (!one->published)
            continue;
        if (!done)
            files_.RemoveMessage(one->published->id);
        files_.Release(one->published->id);
    }
    if (!done)
        return;
    files_.TellNews();
    EraseRemoved(true);
}

void SqliteQueue::Withdraw(const PendingEntry& entry)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    files_.RemoveMessage(entry.id);
    files_.Release(entry.id);
}

std::string SqliteQueue::Named(std::span<const DeliveryStep> steps)
{
    std::string name = "message ";
    name +=
        EntryFiles::FileName(steps.empty() ? 0 : static_cast<std::uint32_t>(steps.front().id), "");
    return steps.size() > 1 ? name + " and others" : name;
}

bool SqliteQueue::RecordStep(std::int64_t reader, const DeliveryStep& step, Removals* removals)
{
    using End = DeliveryStep::End;
    const auto id = static_cast<std::uint32_t>(step.id);
    const auto place = readers_.find(reader);
    if (place == readers_.end())
        return false;
    switch (step.end) {
        case End::kFinish:
            return RemoveRow(place->second, id, removals);  // what it says is no longer wanted
        case End::kGoOn:
            return RecordAnswers(id, step);
        case End::kPutBack:
            return RecordAnswers(id, step) &&
                   Query(index_, "UPDATE delivery SET tries = tries + 1 WHERE entry = ?1", id)
                       .Done() &&
                   ReturnRow(reader, id, std::max<std::int64_t>(step.due, 1));
        case End::kGiveBack:
            return RecordAnswers(id, step) && ReturnRow(reader, id, 0);
        case End::kHold:
            return Query(index_,
                         "UPDATE OR REPLACE chan SET origin = channel, channel = ?3, owner = NULL"
                         " WHERE entry = ?1 AND owner = ?2",
                         id, reader, std::string(kHoldChannel))
                .Done();
    }
    return false;
}

// What was given back in order is no suspect any more.
bool SqliteQueue::ReturnRow(std::int64_t reader, std::uint32_t id, std::int64_t due)
{
    return Query(index_,
                 "UPDATE chan SET owner = NULL, due = ?3, attempts = 0, suspect = 0"
                 " WHERE entry = ?1 AND owner = ?2",
                 id, reader, due)
        .Done();
}

bool SqliteQueue::HasSuspect(const Reader& reader)
{
    Query query(index_,
                "SELECT 1 FROM chan INDEXED BY chan_owner WHERE owner = ?1 AND suspect = 1 LIMIT 1",
                reader.number);
    return query.Row();
}

bool SqliteQueue::RecordAnswers(std::uint32_t id, const DeliveryStep& step)
{
    if (step.answers.empty() && !step.problem && step.end != DeliveryStep::End::kPutBack)
        return true;
    if (!Query(index_,
               "INSERT OR IGNORE INTO delivery (entry, states)"
               " SELECT id, zeroblob(recipients) FROM entry WHERE id = ?1",
               id)
             .Done())
        return false;
    if (step.problem &&
        !Query(index_, "UPDATE delivery SET problem = ?2 WHERE entry = ?1", id, *step.problem)
             .Done())
        return false;
    std::vector<std::pair<int, std::string>> pieces;
    for (const RecipientAnswer& answer : step.answers) {
        if (!answer.text.empty() &&
            !Query(index_, "INSERT OR REPLACE INTO answer VALUES (?1, ?2, ?3)", id,
                   answer.recipient, answer.text)
                 .Done())
            return false;
        if (answer.state == RecipientState::kWaiting)
            continue;
        const int at = static_cast<int>(answer.recipient);
        if (pieces.empty() ||
            pieces.back().first + static_cast<int>(pieces.back().second.size()) != at)
            pieces.emplace_back(at, std::string());
        pieces.back().second += static_cast<char>(answer.state);
    }
    return pieces.empty() || index_.WriteBytes("delivery", "states", id, pieces);
}

bool SqliteQueue::ReadAnswers(unsigned long id, std::uint32_t from, std::size_t limit,
                              std::vector<RecipientAnswer>* answers)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!Usable())
        return false;
    index_.ClearFailure();
    Query query(index_,
                "SELECT recipient, text FROM answer WHERE entry = ?1 AND recipient >= ?2"
                " ORDER BY recipient LIMIT ?3",
                static_cast<std::int64_t>(id), from, static_cast<std::int64_t>(limit));
    while (query.Row())
        answers->push_back({static_cast<std::uint32_t>(query.Int(0)), RecipientState::kWaiting,
                            std::string(query.Bytes(1))});
    if (!query.Failed())
        return true;
    Complain("The answers for message %08lX cannot be read: %s", id, Cause().c_str());
    return false;
}

QueueAnswer SqliteQueue::Waiting(std::int64_t reader, std::int64_t* next_due)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto place = readers_.find(reader);
    if (place == readers_.end() || !Usable())
        return QueueAnswer::kFailed;
    index_.ClearFailure();
    Query query(index_,
                "SELECT EXISTS (SELECT 1 FROM chan INDEXED BY chan_ready WHERE channel = ?1 AND"
                " owner IS NULL AND due = 0) OR EXISTS (SELECT 1 FROM chan INDEXED BY chan_due"
                " WHERE channel = ?1 AND due > 0) OR EXISTS (SELECT 1 FROM chan INDEXED BY"
                " chan_owner WHERE owner IS NOT NULL AND channel = ?1), (SELECT min(due) FROM chan"
                " INDEXED BY chan_due WHERE channel = ?1 AND due > 0)",
                place->second.channel);
    if (query.Row()) {
        *next_due = query.Int(1);
        return query.Int(0) != 0 ? QueueAnswer::kYes : QueueAnswer::kNo;
    }
    Complain("Channel %s of the message queue cannot be read: %s", place->second.channel.c_str(),
             Cause().c_str());
    return QueueAnswer::kFailed;
}

bool SqliteQueue::WaitForNews(std::chrono::milliseconds longest)
{
    return news_.Wait(files_.NewsPath(), longest);
}

bool SqliteQueue::HasRoom() const
{
    return HasRoomAt(folder_, kSendRoom);
}

}  // namespace dl
