// Bringing an index of an older format up to date: a copy first, then one transaction.
//
//   1  entries, envelopes and channels; some have the tables for delivery in parts already
//   2  delivery in parts: due times, the recipients' states, kept answers

#include <unistd.h>

#include <cerrno>

#include "platform/files/files.h"
#include "platform/log/log.h"
#include "platform/queue/entry_files.h"
#include "platform/queue/queue.h"
#include "platform/queue/sqlite_private.h"

namespace dl
{

bool Index::BringUpToDate(const std::string& path, int application, std::string* cause)
{
    std::int64_t format = 0;
    std::int64_t found = 0;
    {
        Query formats(*this, "PRAGMA user_version");
        Query applications(*this, "PRAGMA application_id");
        if (formats.Row() && applications.Row()) {
            format = formats.Int(0);
            found = applications.Int(0);
        }
    }
    if (Failed()) {
        *cause = Cause();
        return false;
    }
    if (format < 1 || format >= kQueueFormat || found != application)
        return true;  // CheckFormat says what is wrong with it
    const std::string backup = path + ".format-" + std::to_string(format);
    if (!CopyTo(backup, cause))
        return false;
    std::int64_t from = 0;
    if (!MigrateFrom1(&from)) {
        *cause = "the index of format " + std::to_string(format) +
                 " cannot be brought up to date: " + Cause();
        return false;
    }
    if (from == format)  // else another process was first
        LogMessage(5, "DL Queue",
                   ("The index " + path + " was brought from format " + std::to_string(format) +
                    " to " + std::to_string(kQueueFormat) + ", the old one is kept as " + backup)
                       .c_str());
    return true;
}

// Whole or not at all: under another name until it is on disk.
bool Index::CopyTo(const std::string& backup, std::string* cause)
{
    const std::string part = backup + "." + std::to_string(getpid()) + ".part";
    const std::string folder = backup.substr(0, backup.rfind('/'));
    (void)unlink(part.c_str());
    ClearFailure();
    bool done = Query(*this, "VACUUM INTO ?1", part).Done();
    if (!done)
        *cause = Cause();
    errno = 0;
    done = done && SyncPath(part) && rename(part.c_str(), backup.c_str()) == 0 && SyncPath(folder);
    if (!done) {
        *cause = "no copy of the index can be written to " + backup + ": " +
                 (cause->empty() ? PlainError(errno) : *cause);
        (void)unlink(part.c_str());
    }
    return done;
}

// `from` is the format that was found when no other process could change it any more.
bool Index::MigrateFrom1(std::int64_t* from)
{
    Transaction transaction(*this, Durable::kPower);
    std::int64_t has_due = 0;
    {
        Query format(*this, "PRAGMA user_version");
        Query column(*this, "SELECT count(*) FROM pragma_table_info('chan') WHERE name = 'due'");
        if (!transaction.Begun() || !format.Row() || !column.Row())
            return false;
        *from = format.Int(0);
        has_due = column.Int(0);
    }
    if (*from != 1)
        return true;
    return (has_due != 0 ||
            Execute("ALTER TABLE chan ADD COLUMN due INTEGER NOT NULL DEFAULT 0")) &&
           Execute(
               "DROP INDEX IF EXISTS chan_ready; CREATE INDEX chan_ready ON chan"
               " (channel, attempts, seq) WHERE owner IS NULL AND due = 0;"
               "CREATE INDEX IF NOT EXISTS chan_due ON chan (channel, due) WHERE due > 0;"
               "CREATE TABLE IF NOT EXISTS delivery (entry INTEGER PRIMARY KEY, tries INTEGER"
               " NOT NULL DEFAULT 0, problem TEXT NOT NULL DEFAULT '', states BLOB NOT NULL);"
               "CREATE TABLE IF NOT EXISTS answer (entry INTEGER NOT NULL, recipient INTEGER"
               " NOT NULL, text TEXT NOT NULL, PRIMARY KEY (entry, recipient)) WITHOUT ROWID;"
               "PRAGMA user_version=2") &&
           transaction.Commit();
}

}  // namespace dl
