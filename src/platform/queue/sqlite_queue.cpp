#include <unistd.h>

#include <cstdarg>

#include "platform/clock/clock.h"
#include "platform/files/files.h"
#include "platform/log/log.h"
#include "platform/queue/sqlite_queue_private.h"

namespace dl
{

namespace
{

// When others use the folder a sweep looks at so many names only: a program that starts for each
// message must not read a long queue each time. Whoever comes first, or alone, looks at all.
constexpr std::size_t kSweepNames = 1000;
constexpr char kMessage[] = ".msg";

}  // namespace

SqliteQueue::SqliteQueue(std::string folder, int max_attempts, std::string module)
    : folder_(std::move(folder)),
      max_attempts_(max_attempts),
      module_(std::move(module)),
      process_(getpid())
{
}

SqliteQueue::~SqliteQueue()
{
    if (getpid() != process_) {
        index_.Forget();
        return;
    }
    EraseRemoved(false);
}

bool SqliteQueue::Open(QueueUse use)
{
    std::string cause;
    bool made = false;
    const auto may_be_new = [this, &made] {
        const auto names = files_.Names(1);
        return made = names && names->empty();
    };
    const std::string path = folder_ + "/index.db";
    if (!files_.Open(folder_, &cause)) {
        Complain("The message queue %s cannot be opened: %s", folder_.c_str(), cause.c_str());
        return false;
    }
    if (!index_.Open(path, may_be_new, &cause)) {
        Complain("The message queue cannot be opened: %s: %s", path.c_str(), cause.c_str());
        return false;
    }
    files_.GiveToOwner(path);
    // A new index must be found again after a power loss, before the first entry stands on it.
    if (made && !(SyncPath(folder_) && SyncPath(folder_ + "/.."))) {
        Complain("The message queue %s cannot be opened: the folder cannot be written to the disk",
                 folder_.c_str());
        return false;
    }
    const bool brief = use == QueueUse::kBrief;
    if (brief)
        index_.LeaveLogAtEnd();
    const bool alone = files_.Enter();
    if (!GoOnBehindLastEntry(&cause) || (!brief && !Sweep(alone))) {
        Complain("The message queue cannot be opened: %s: %s", path.c_str(),
                 cause.empty() ? Cause().c_str() : cause.c_str());
        return false;
    }
    return true;
}

// An identifier that comes again soon would have the copies that digests and archives have under
// the same name overwritten.
bool SqliteQueue::GoOnBehindLastEntry(std::string* cause)
{
    Query last(index_, "SELECT value FROM counter WHERE name = 'entry'");
    if (!last.Row())
        return !last.Failed();
    return files_.GoOnBehind(static_cast<std::uint32_t>(last.Int(0)), cause);
}

std::optional<std::uint32_t> SqliteQueue::Reserve()
{
    if (!Usable())
        return std::nullopt;
    const std::lock_guard<std::mutex> guard(mutex_);
    std::string cause;
    const auto known = [this](std::uint32_t id) { return Indexed(id); };
    const auto id = files_.Reserve(known, &cause);
    if (!id)
        Complain("No new entry in the message queue %s: %s", folder_.c_str(),
                 cause.empty() ? Cause().c_str() : cause.c_str());
    return id;
}

bool SqliteQueue::AddChannel(PendingEntry* entry, const std::string& channel, int priority)
{
    FillChannel(entry, channel, priority);
    return true;
}

bool SqliteQueue::StoreEnvelope(PendingEntry* entry, const stEnvelope& envelope)
{
    FillEnvelope(entry, envelope);
    return true;
}

bool SqliteQueue::Publish(const PendingEntry& entry)
{
    std::int64_t bytes = 0;
    std::string cause;
    bool done = false;
    if (!Usable())
        return false;
    // Outside the lock: the disk takes its time, and other threads have messages of their own.
    const bool synced = !entry.channels.empty() && files_.Sync(entry.id, &bytes, &cause);
    const std::lock_guard<std::mutex> guard(mutex_);
    if (synced) {
        done = CommitEntry(entry, bytes);
        if (!done)
            cause = Cause();
    }
    FinishEntry(entry, done, cause);
    if (done) {
        files_.TellNews();
        EraseRemoved(true);
    }
    return done;
}

void SqliteQueue::FinishEntry(const PendingEntry& entry, bool done, const std::string& cause)
{
    if (!done)
        files_.RemoveMessage(entry.id);
    files_.Release(entry.id);  // not before: a sweep takes what is neither claimed nor in the index
    if (!done && !entry.channels.empty())
        TellUnpublished(entry, cause);
}

void SqliteQueue::TellUnpublished(const PendingEntry& entry, const std::string& cause) const
{
    Complain("Message %08X was not put into the message queue: %s", static_cast<unsigned>(entry.id),
             cause.c_str());
}

bool SqliteQueue::CommitEntry(const PendingEntry& entry, std::int64_t bytes)
{
    Transaction transaction(index_, Durable::kPower);
    return transaction.Begun() && InsertEntry(entry, bytes) && transaction.Commit();
}

bool SqliteQueue::InsertEntry(const PendingEntry& entry, std::int64_t bytes)
{
    (void)Query(index_, "INSERT INTO entry VALUES (?1, ?2, ?3, ?4, ?5)", entry.id, entry.sender,
                entry.recipients, bytes, static_cast<std::int64_t>(Now()))
        .Done();
    if (!entry.envelope.empty())
        (void)Query(index_, "INSERT INTO envelope VALUES (?1, ?2)", entry.id, Blob{entry.envelope})
            .Done();
    // The latest of all, though the counter may have begun again, and they are not put in in order.
    (void)Query(index_,
                "INSERT INTO counter VALUES ('entry', ?1) ON CONFLICT (name) DO UPDATE"
                " SET value = excluded.value"
                " WHERE ((excluded.value - value) & 0xFFFFFFFF) < 0x80000000",
                entry.id)
        .Done();
    for (const auto& [channel, priority] : entry.channels)
        (void)Query(index_, "INSERT INTO chan (channel, entry, priority) VALUES (?1, ?2, ?3)",
                    channel, entry.id, priority)
            .Done();
    return !index_.Failed();
}

void SqliteQueue::Abandon(std::uint32_t id)
{
    if (!Usable())
        return;
    const std::lock_guard<std::mutex> guard(mutex_);
    files_.RemoveMessage(id);
    files_.Release(id);
}

std::string SqliteQueue::PathName(std::uint32_t id, const char* extension) const
{
    return files_.Path(id, extension);
}

EntryFiles::Known SqliteQueue::Indexed(std::uint32_t id)
{
    index_.ClearFailure();
    Query query(index_, "SELECT 1 FROM entry WHERE id = ?1", id);
    if (query.Row())
        return EntryFiles::Known::kYes;
    return query.Failed() ? EntryFiles::Known::kFailed : EntryFiles::Known::kNo;
}

// Only what nobody writes and the index does not have, looked at in this order: a writer ends its
// claim after its commit, so whoever gets the claim sees the commit.
// False when somebody has the claim at this moment.
bool SqliteQueue::EraseFile(std::uint32_t id, const std::string& name)
{
    if (files_.HasClaim(id) || !files_.Claim(id))
        return false;
    if (Indexed(id) == EntryFiles::Known::kNo)
        files_.RemoveNamed(name);
    files_.Release(id);
    return true;
}

void SqliteQueue::EraseRemoved(bool synced)
{
    if (removed_.empty())
        return;
    if (!synced && !SyncIndex()) {
        Complain("The files of removed messages stay in the message queue %s: %s", folder_.c_str(),
                 Cause().c_str());
        return;
    }
    // The writer may not have ended its claim yet, when the reader was quick: the next time then.
    std::erase_if(removed_, [this](std::uint32_t id) {
        return EraseFile(id, EntryFiles::FileName(id, kMessage));
    });
}

// Puts all earlier commits on disk. A full disk may have no room for a commit more, but for a
// checkpoint.
bool SqliteQueue::SyncIndex()
{
    {
        Transaction transaction(index_, Durable::kPower);
        if (transaction.Begun() &&
            Query(index_, "UPDATE counter SET value = value + 1 WHERE name = 'sync'").Done() &&
            transaction.Commit())
            return true;
    }
    return index_.Checkpoint();
}

bool SqliteQueue::Sweep(bool alone)
{
    std::vector<EntryFiles::Name> left;
    auto names = files_.Names(alone ? 0 : kSweepNames);
    (void)Query(index_, "BEGIN").Done();  // one reading transaction for all
    for (std::size_t i = 0; names && i < names->size(); ++i) {
        const EntryFiles::Known known = Indexed((*names)[i].id);
        if (known == EntryFiles::Known::kFailed)
            break;
        if (known == EntryFiles::Known::kNo)
            left.push_back(std::move((*names)[i]));
    }
    const bool read = names && !index_.Failed();
    (void)Query(index_, "COMMIT").Done();
    if (!read)
        return false;
    // An entry may be gone from the index by a commit that a power loss still undoes.
    if (left.empty() || !SyncIndex())
        return true;  // what stays is no more than wasted space
    for (const EntryFiles::Name& file : left)
        (void)EraseFile(file.id, file.name);  // one that is claimed is being written
    return true;
}

bool SqliteQueue::Usable() const
{
    if (getpid() == process_)
        return true;
    Complain("The message queue %s was opened before a fork", folder_.c_str());
    return false;
}

std::string SqliteQueue::Cause() const
{
    return index_.Cause();
}

void SqliteQueue::Complain(const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    LogFormatted(1, module_.c_str(), 1024, format, args);
    va_end(args);
}

std::unique_ptr<QueueBackend> OpenSqliteQueue(const std::string& folder, int max_attempts,
                                              const std::string& module, QueueUse use)
{
    auto queue = std::make_unique<SqliteQueue>(folder, max_attempts, module);
    if (!queue->Open(use))
        return nullptr;
    return queue;
}

}  // namespace dl
