#include <map>

#include "platform/queue/sqlite_queue_private.h"

namespace dl
{

namespace
{

// The columns of both are those that ReadItems takes.
constexpr char kOfChannel[] =
    "SELECT chan.entry, channel, sender, recipients, bytes, closed, origin, attempts, owner, due,"
    " tries, problem, suspect FROM chan JOIN entry ON entry.id = chan.entry"
    " LEFT JOIN delivery ON delivery.entry = chan.entry"
    " WHERE ?1 = '' OR channel = ?1 ORDER BY channel, suspect, attempts, seq LIMIT ?2";
constexpr char kOfEntry[] =
    "SELECT chan.entry, channel, sender, recipients, bytes, closed, origin, attempts, owner, due,"
    " tries, problem, suspect FROM chan JOIN entry ON entry.id = chan.entry"
    " LEFT JOIN delivery ON delivery.entry = chan.entry"
    " WHERE chan.entry = ?1 ORDER BY channel, suspect, attempts, seq";

}  // namespace

bool SqliteQueue::List(const std::string& channel, std::size_t limit, std::vector<QueueItem>* items)
{
    if (!Usable())
        return false;
    const std::lock_guard<std::mutex> guard(mutex_);
    index_.ClearFailure();
    Query query(index_, kOfChannel, channel,
                limit == 0 ? std::int64_t{-1} : static_cast<std::int64_t>(limit));
    return ReadItems(&query, items);
}

bool SqliteQueue::Find(std::uint32_t id, std::vector<QueueItem>* items)
{
    if (!Usable())
        return false;
    const std::lock_guard<std::mutex> guard(mutex_);
    index_.ClearFailure();
    Query query(index_, kOfEntry, id);
    return ReadItems(&query, items);
}

bool SqliteQueue::ReadItems(Query* query, std::vector<QueueItem>* items)
{
    items->clear();
    std::map<std::int64_t, bool> alive;
    while (query->Row()) {
        QueueItem item;
        item.id = static_cast<unsigned long>(query->Int(0));
        item.channel = query->Bytes(1);
        item.sender = query->Bytes(2);
        item.recipients = static_cast<std::uint32_t>(query->Int(3));
        item.bytes = query->Int(4);
        item.closed = query->Int(5);
        item.origin = query->Bytes(6);
        item.attempts = static_cast<int>(query->Int(7));
        if (!query->IsNull(8)) {
            const auto [place, is_new] = alive.try_emplace(query->Int(8), false);
            if (is_new)
                place->second = IsAlive(place->first);
            item.taken = place->second;
        }
        item.due = query->Int(9);
        item.tries = static_cast<int>(query->Int(10));
        item.problem = query->Bytes(11);
        item.suspect = query->Int(12) != 0;
        items->push_back(std::move(item));
    }
    if (!query->Failed())
        return true;
    Complain("The message queue %s cannot be listed: %s", folder_.c_str(), Cause().c_str());
    return false;
}

// Whether the entry has rows (in `channel`, when given) that nobody has taken.
QueueChange SqliteQueue::FindRows(std::uint32_t id, const std::string* channel, int* priority)
{
    if (!FreeDeadReaders())
        return QueueChange::kFailed;
    Query query(index_,
                "SELECT owner, priority FROM chan WHERE entry = ?1 AND (?2 = 0 OR channel = ?3)",
                id, channel ? 1 : 0, channel ? *channel : std::string());
    QueueChange found = QueueChange::kNotThere;
    while (query.Row()) {
        if (!query.IsNull(0))
            return QueueChange::kTaken;
        *priority = static_cast<int>(query.Int(1));
        found = QueueChange::kDone;
    }
    return query.Failed() ? QueueChange::kFailed : found;
}

QueueChange SqliteQueue::Drop(std::uint32_t id)
{
    if (!Usable())
        return QueueChange::kFailed;
    const std::lock_guard<std::mutex> guard(mutex_);
    QueueChange result = QueueChange::kFailed;
    {
        Transaction transaction(index_, Durable::kPower);
        int priority = 0;
        if (transaction.Begun())
            result = FindRows(id, nullptr, &priority);
        if (result == QueueChange::kDone &&
            !(Query(index_, "DELETE FROM chan WHERE entry = ?1", id).Done() && ForgetEntry(id) &&
              transaction.Commit()))
            result = QueueChange::kFailed;
    }
    if (result == QueueChange::kDone) {
        removed_.push_back(id);
        EraseRemoved(true);
    } else if (result == QueueChange::kFailed) {
        Complain("Message %08X cannot be removed from the message queue: %s",
                 static_cast<unsigned>(id), Cause().c_str());
    }
    return result;
}

// `to` empty: each row to where it was held from, if that is known.
bool SqliteQueue::MoveRows(std::uint32_t id, const std::string& from, const std::string& to)
{
    const std::string origin = to == kHoldChannel ? from : std::string();
    return Query(index_,
                 "INSERT OR IGNORE INTO chan (channel, entry, priority, origin)"
                 " SELECT CASE ?3 WHEN '' THEN origin ELSE ?3 END, entry, priority, ?4 FROM chan"
                 " WHERE entry = ?1 AND channel = ?2 AND (?3 <> '' OR origin <> '')",
                 id, from, to, origin)
               .Done() &&
           Query(index_,
                 "DELETE FROM chan"
                 " WHERE entry = ?1 AND channel = ?2 AND (?3 <> '' OR origin <> '')",
                 id, from, to)
               .Done();
}

QueueChange SqliteQueue::Move(std::uint32_t id, const std::string& from, const std::string& to)
{
    if (!Usable())
        return QueueChange::kFailed;
    const std::lock_guard<std::mutex> guard(mutex_);
    QueueChange result = QueueChange::kFailed;
    {
        Transaction transaction(index_, Durable::kPower);
        int priority = 0;
        if (transaction.Begun())
            result = FindRows(id, &from, &priority);
        if (result == QueueChange::kDone && from != to &&
            !(MoveRows(id, from, to) && transaction.Commit()))
            result = QueueChange::kFailed;
    }
    if (result == QueueChange::kDone)
        files_.TellNews();
    if (result == QueueChange::kFailed)
        Complain("Message %08X cannot be moved to channel %s of the message queue: %s",
                 static_cast<unsigned>(id), to.empty() ? "of its origin" : to.c_str(),
                 Cause().c_str());
    return result;
}

}  // namespace dl
