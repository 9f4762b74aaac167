#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/clock/clock.h"
#include "platform/metrics/metrics.h"
#include "platform/queue/room.h"
#include "platform/queue/sqlite_queue_private.h"

namespace dl
{

namespace
{

constexpr std::size_t kMostWaitingFiles = 256;
constexpr std::int64_t kMostWoken = 1000;  // of those due, at a time: a long list must not hold
                                           // the index for long

}  // namespace

std::int64_t SqliteQueue::BeginReader(const std::string& channel, std::int64_t longest_pause)
{
    if (!Usable())
        return -1;
    const std::lock_guard<std::mutex> guard(mutex_);
    std::int64_t number = -1;
    {
        Transaction transaction(index_, Durable::kProcess);
        if (transaction.Begun() && FreeDeadReaders()) {
            Query next(
                index_,
                "UPDATE counter SET value = value + 1 WHERE name = 'reader' RETURNING value");
            if (next.Row())
                number = next.Int(0);
            (void)next.Done();
        }
        // Claimed before anything can bear the number.
        if (!index_.Failed() && number >= 0 && files_.ClaimReader(number) && transaction.Commit()) {
            readers_[number] = {.number = number,
                                .channel = channel,
                                .longest_pause = longest_pause,
                                .unwritten = {},
                                .problem = {}};
            return number;
        }
    }
    if (number >= 0)
        files_.ReleaseReader(number);
    Complain("Channel %s of the message queue cannot be read: %s", channel.c_str(),
             Cause().c_str());
    return -1;
}

bool SqliteQueue::EndReader(std::int64_t reader)
{
    if (!Usable())
        return false;
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto place = readers_.find(reader);
    if (place == readers_.end())
        return false;
    Removals removals;
    bool done = false;
    {
        Transaction transaction(index_, Durable::kProcess);
        done = transaction.Begun() && GiveBack(place->second, &removals) && transaction.Commit();
    }
    if (done)
        Finish(removals);
    else
        Complain("Channel %s of the message queue cannot be closed: %s",
                 place->second.channel.c_str(), Cause().c_str());
    readers_.erase(place);
    files_.ReleaseReader(reader);
    EraseRemoved(false);
    return done;
}

void SqliteQueue::BeginPass(std::int64_t reader)
{
    if (getpid() != process_)
        return;  // Take says so
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto place = readers_.find(reader);
    if (place != readers_.end())
        place->second.pass_open = false;  // Take opens it, and can say when that fails
}

bool SqliteQueue::OpenPass(Reader& reader)
{
    Removals removals;
    Transaction transaction(index_, Durable::kProcess);
    if (!transaction.Begun() || !FreeDeadReaders() || !GiveBack(reader, &removals) ||
        !WakeDue(reader, Now()))
        return false;
    Query last(index_, "SELECT max(seq) FROM chan");
    if (!last.Row())
        return false;
    reader.last = last.Int(0);
    (void)last.Done();
    if (!transaction.Commit())
        return false;
    reader.unwritten.clear();
    reader.pass_open = true;
    Finish(removals);
    return true;
}

// A look that takes no lock: who is woken by each commit of others must not make them wait. False
// also when it cannot be told.
bool SqliteQueue::NothingWaits(const Reader& reader)
{
    index_.ClearFailure();
    Query query(index_,
                "SELECT EXISTS (SELECT 1 FROM chan INDEXED BY chan_ready WHERE channel = ?1 AND"
                " owner IS NULL AND due = 0) OR EXISTS (SELECT 1 FROM chan INDEXED BY chan_due"
                " WHERE channel = ?1 AND due > 0 AND (due <= ?2 OR due > ?2 + ?3)) OR EXISTS"
                " (SELECT 1 FROM chan INDEXED BY chan_owner WHERE owner IS NOT NULL AND"
                " channel = ?1)",
                reader.channel, static_cast<std::int64_t>(Now()), reader.longest_pause);
    return reader.unwritten.empty() && query.Row() && query.Int(0) == 0;
}

// A due time farther off than any pause was written before the clock was set back.
bool SqliteQueue::WakeDue(const Reader& reader, std::int64_t now)
{
    return Query(index_,
                 "UPDATE chan SET due = 0 WHERE seq IN (SELECT seq FROM chan INDEXED BY chan_due"
                 " WHERE channel = ?1 AND due > 0 AND (due <= ?2 OR due > ?2 + ?3) ORDER BY due"
                 " LIMIT ?4)",
                 reader.channel, now, reader.longest_pause, kMostWoken)
        .Done();
}

long SqliteQueue::Take(std::int64_t reader)
{
    if (!Usable())
        return kQueueFailed;
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto place = readers_.find(reader);
    if (place == readers_.end())
        return kQueueFailed;
    if (!place->second.pass_open && NothingWaits(place->second)) {
        TellRead(place->second);
        EraseRemoved(false);
        return kNoMessage;
    }
    bool read = place->second.pass_open || OpenPass(place->second);
    while (read) {
        const Taken taken = TakeOne(place->second);
        if (taken.how == Taken::kMessage || taken.how == Taken::kNone)
            TellRead(place->second);
        if (taken.how == Taken::kMessage)
            return static_cast<long>(taken.id);
        if (taken.how == Taken::kNone) {
            EraseRemoved(false);
            return kNoMessage;
        }
        if (taken.how == Taken::kNoRoom)
            return TellUnread(place->second, PlainError(ENOSPC));
        read = taken.how == Taken::kHeld;
    }
    return TellUnread(place->second, Cause());
}

// A reader that looks every second must not fill the log, least of all that of a full disk.
long SqliteQueue::TellUnread(Reader& reader, const std::string& cause) const
{
    if (reader.problem != cause)
        Complain("Channel %s of the message queue cannot be read: %s", reader.channel.c_str(),
                 cause.c_str());
    reader.problem = cause;
    return kQueueFailed;
}

void SqliteQueue::TellRead(Reader& reader) const
{
    if (!reader.problem.empty())
        Complain("Channel %s of the message queue can be read again", reader.channel.c_str());
    reader.problem.clear();
}

SqliteQueue::Taken SqliteQueue::TakeOne(const Reader& reader)
{
    Taken taken{Taken::kFailed, 0};
    {
        Transaction transaction(index_, Durable::kProcess);
        if (transaction.Begun())
            taken = TakeRow(reader, true);
        if (taken.how == Taken::kMessage && !HasRoomToHandle(taken.id))
            taken.how = Taken::kNoRoom;
        if (taken.how == Taken::kNone || taken.how == Taken::kNoRoom)
            return taken;
        if (!transaction.Commit())
            return {Taken::kFailed, 0};
    }
    TellHeld(reader, taken);
    return taken;
}

bool SqliteQueue::HasRoomToHandle(std::uint32_t id)
{
    Query entry(index_, "SELECT bytes FROM entry WHERE id = ?1", id);
    if (!entry.Row())
        return true;
    const Room wanted = ServiceRoom(static_cast<std::uint64_t>(entry.Int(0)));
    return HasRoomAt(folder_, wanted) && (room_at_.empty() || HasRoomAt(room_at_, wanted));
}

bool SqliteQueue::HasRoomFor(std::int64_t bytes)
{
    if (!Usable())
        return true;
    const std::lock_guard<std::mutex> guard(mutex_);
    index_.ClearFailure();
    Query largest(index_, kLargest);
    const std::int64_t waiting = largest.Row() && !largest.IsNull(0) ? largest.Int(0) : 0;
    if (largest.Failed())
        return true;
    return HasRoomAt(
        folder_,
        IntakeRoom(static_cast<std::uint64_t>(bytes),
                   static_cast<std::uint64_t>(std::max(waiting, std::int64_t{kLargeMessage}))));
}

void SqliteQueue::NeedRoomAt(const std::string& folder)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    room_at_ = folder;
}

SqliteQueue::Taken SqliteQueue::TakeRow(const Reader& reader, bool suspects)
{
    std::int64_t seq = 0;
    std::uint32_t id = 0;
    int attempts = 0;
    bool suspect = false;
    {
        Query first(index_,
                    "SELECT seq, entry, attempts, suspect FROM chan INDEXED BY chan_ready WHERE"
                    " channel = ?1 AND owner IS NULL AND due = 0 AND suspect <= ?3 AND"
                    " (?2 = 0 OR seq <= ?2) ORDER BY suspect, attempts, seq LIMIT 1",
                    reader.channel, reader.last, suspects ? 1 : 0);
        if (!first.Row())
            return {first.Failed() ? Taken::kFailed : Taken::kNone, 0};
        seq = first.Int(0);
        id = static_cast<std::uint32_t>(first.Int(1));
        attempts = static_cast<int>(first.Int(2));
        suspect = first.Int(3) != 0;
    }
    const bool missing = !files_.HasMessage(id);
    const bool hold = reader.channel != kHoldChannel && (missing || attempts >= max_attempts_);
    if (hold)
        (void)Query(index_,
                    "UPDATE OR REPLACE chan SET origin = channel, channel = ?2 WHERE seq = ?1", seq,
                    std::string(kHoldChannel))
            .Done();
    else
        (void)Query(index_, "UPDATE chan SET owner = ?2 WHERE seq = ?1", seq, reader.number).Done();
    if (index_.Failed())
        return {Taken::kFailed, 0};
    return {hold ? Taken::kHeld : Taken::kMessage, id, missing ? 0 : attempts, suspect};
}

void SqliteQueue::TellHeld(const Reader& reader, const Taken& taken) const
{
    if (taken.how != Taken::kHeld)
        return;
    Count(Metric::kHeld);
    if (taken.attempts == 0)
        Complain("Message %08X has no message file, moved from channel %s to %s",
                 static_cast<unsigned>(taken.id), reader.channel.c_str(), kHoldChannel);
    else
        Complain("Message %08X could not be handled in %d attempts, moved from channel %s to %s",
                 static_cast<unsigned>(taken.id), taken.attempts, reader.channel.c_str(),
                 kHoldChannel);
}

bool SqliteQueue::Remove(std::int64_t reader, std::uint32_t id)
{
    if (!Usable())
        return false;
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto place = readers_.find(reader);
    if (place == readers_.end())
        return false;
    Removals removals;
    bool done = false;
    {
        Transaction transaction(index_, Durable::kProcess);
        done =
            transaction.Begun() && RemoveRow(place->second, id, &removals) && transaction.Commit();
    }
    if (done && !removals.missing) {
        Finish(removals);
        if (removed_.size() >= kMostWaitingFiles)
            EraseRemoved(false);
        return true;
    }
    if (!done)
        place->second.unwritten.push_back(id);
    Complain("Message %08X cannot be taken out of channel %s of the message queue: %s",
             static_cast<unsigned>(id), place->second.channel.c_str(),
             done ? "it is not this reader's" : Cause().c_str());
    return false;
}

SqliteQueue::Found SqliteQueue::ReadEnvelope(std::uint32_t id, std::string* encoded)
{
    if (!Usable())
        return Found::kFailed;
    const std::lock_guard<std::mutex> guard(mutex_);
    index_.ClearFailure();
    Query query(index_, "SELECT data FROM envelope WHERE entry = ?1", id);
    if (query.Row()) {
        encoded->assign(query.Bytes(0));
        return Found::kYes;
    }
    if (!index_.Failed())
        return Found::kNo;
    Complain("The envelope of message %08X cannot be read: %s", static_cast<unsigned>(id),
             Cause().c_str());
    return Found::kFailed;
}

// Releases the entries of dead readers. Numbers are looked up one by one, not row by row.
bool SqliteQueue::FreeDeadReaders()
{
    std::int64_t last = -1;
    for (;;) {
        Query next(index_, "SELECT min(owner) FROM chan INDEXED BY chan_owner WHERE owner > ?1",
                   last);
        if (!next.Row() || next.IsNull(0))
            return !next.Failed();
        last = next.Int(0);
        if (!IsAlive(last) && !FreeReader(last))
            return false;
    }
}

// What a reader that died had in flight is suspect. Where it had one entry, or one suspect among
// others, that is the one that counts an attempt.
bool SqliteQueue::FreeReader(std::int64_t reader)
{
    std::int64_t count = 0;
    std::int64_t suspects = 0;
    {
        Query query(
            index_,
            "SELECT count(*), sum(suspect) FROM chan INDEXED BY chan_owner WHERE owner = ?1",
            reader);
        if (!query.Row())
            return false;
        count = query.Int(0);
        suspects = query.Int(1);
    }
    return Query(index_,
                 "UPDATE chan SET owner = NULL, suspect = 1, attempts = attempts +"
                 " (?2 = 1 OR (?3 = 1 AND suspect = 1)) WHERE owner = ?1",
                 reader, count, suspects)
        .Done();
}

bool SqliteQueue::GiveBack(Reader& reader, Removals* removals)
{
    for (const std::uint32_t id : reader.unwritten)
        if (!RemoveRow(reader, id, removals))
            return false;
    return Query(index_, "UPDATE chan SET owner = NULL WHERE owner = ?1", reader.number).Done();
}

bool SqliteQueue::RemoveRow(const Reader& reader, std::uint32_t id, Removals* removals)
{
    Query envelope(index_, "SELECT 1 FROM envelope WHERE entry = ?1", id);
    const bool hold = !envelope.Row() && reader.channel != kHoldChannel;
    if (envelope.Failed())
        return false;
    const bool done =
        hold ? Query(index_,
                     "UPDATE OR REPLACE chan SET origin = channel, channel = ?3, owner = NULL"
                     " WHERE entry = ?1 AND owner = ?2",
                     id, reader.number, std::string(kHoldChannel))
                   .Done()
             : Query(index_, "DELETE FROM chan WHERE entry = ?1 AND owner = ?2", id, reader.number)
                   .Done();
    if (!done)
        return false;
    if (index_.Changes() == 0) {
        removals->missing = true;
        return true;
    }
    if (hold) {
        removals->held.push_back(id);
        return true;
    }
    Query rest(index_, "SELECT 1 FROM chan WHERE entry = ?1", id);
    if (rest.Row() || rest.Failed())
        return !rest.Failed();
    removals->gone.push_back(id);
    return ForgetEntry(id);
}

bool SqliteQueue::ForgetEntry(std::uint32_t id)
{
    return Query(index_, "DELETE FROM envelope WHERE entry = ?1", id).Done() &&
           Query(index_, "DELETE FROM delivery WHERE entry = ?1", id).Done() &&
           Query(index_, "DELETE FROM answer WHERE entry = ?1", id).Done() &&
           Query(index_, "DELETE FROM entry WHERE id = ?1", id).Done();
}

void SqliteQueue::Finish(const Removals& removals)
{
    removed_.insert(removed_.end(), removals.gone.begin(), removals.gone.end());
    Count(Metric::kHeld, removals.held.size());
    for (const std::uint32_t id : removals.held)
        Complain("Message %08X has no envelope, moved to channel %s", static_cast<unsigned>(id),
                 kHoldChannel);
}

bool SqliteQueue::IsAlive(std::int64_t reader) const
{
    return readers_.count(reader) != 0 || files_.ReaderLives(reader);
}

}  // namespace dl
