// Bringing an index of an older format up to date: a copy first, then one transaction.
//
//   1  entries, envelopes and channels; some have the tables for delivery in parts already
//   2  delivery in parts: due times, the recipients' states, kept answers
//   3  suspects, whose attempts alone count; marks; large messages are found by their size

#include <unistd.h>

#include <cerrno>

#include "platform/files/files.h"
#include "platform/files/folder_lock.h"
#include "platform/log/log.h"
#include "platform/queue/entry_files.h"
#include "platform/queue/queue.h"
#include "platform/queue/sqlite_private.h"

namespace dl
{

// A copy that is made while another process migrates would be one of the new format: one at a time.
bool Index::BringUpToDate(const std::string& path, int application, std::string* cause)
{
    std::int64_t format = 0;
    if (!ReadOlderFormat(application, &format)) {
        *cause = Cause();
        return false;
    }
    if (format == 0)
        return true;  // up to date, or CheckFormat says what is wrong with it
    const FolderLock lock(path.substr(0, path.rfind('/')));
    if (!lock.Held()) {
        *cause = "the folder cannot be locked: " + PlainError(errno);
        return false;
    }
    if (!ReadOlderFormat(application, &format)) {
        *cause = Cause();
        return false;
    }
    if (format == 0)
        return true;  // another process was first
    const std::string backup = path + ".format-" + std::to_string(format);
    if (!CopyTo(backup, cause))
        return false;
    if (!MigrateFrom(format)) {
        *cause = "the index of format " + std::to_string(format) +
                 " cannot be brought up to date: " + Cause();
        return false;
    }
    LogMessage(5, "DL Queue",
               ("The index " + path + " was brought from format " + std::to_string(format) +
                " to " + std::to_string(kQueueFormat) + ", the old one is kept as " + backup)
                   .c_str());
    return true;
}

// `format` is 0 when there is nothing to migrate. False when it cannot be read.
bool Index::ReadOlderFormat(int application, std::int64_t* format)
{
    Query formats(*this, "PRAGMA user_version");
    Query applications(*this, "PRAGMA application_id");
    if (!formats.Row() || !applications.Row())
        return false;
    *format = formats.Int(0);
    if (*format < 1 || *format >= kQueueFormat || applications.Int(0) != application)
        *format = 0;
    return true;
}

// Whole or not at all: under another name until it is on disk. What a crash has left under that
// name goes.
bool Index::CopyTo(const std::string& backup, std::string* cause)
{
    const std::string part = backup + ".part";
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

bool Index::MigrateFrom(std::int64_t format)
{
    Transaction transaction(*this, Durable::kPower);
    return transaction.Begun() && (format >= 2 || ToFormat2()) && ToFormat3() &&
           Execute(("PRAGMA user_version=" + std::to_string(kQueueFormat)).c_str()) &&
           transaction.Commit();
}

bool Index::ToFormat2()
{
    std::int64_t has_due = 0;
    {
        Query column(*this, "SELECT count(*) FROM pragma_table_info('chan') WHERE name = 'due'");
        if (!column.Row())
            return false;
        has_due = column.Int(0);
    }
    return (has_due != 0 ||
            Execute("ALTER TABLE chan ADD COLUMN due INTEGER NOT NULL DEFAULT 0")) &&
           Execute(
               "CREATE INDEX IF NOT EXISTS chan_due ON chan (channel, due) WHERE due > 0;"
               "CREATE TABLE IF NOT EXISTS delivery (entry INTEGER PRIMARY KEY, tries INTEGER"
               " NOT NULL DEFAULT 0, problem TEXT NOT NULL DEFAULT '', states BLOB NOT NULL);"
               "CREATE TABLE IF NOT EXISTS answer (entry INTEGER NOT NULL, recipient INTEGER"
               " NOT NULL, text TEXT NOT NULL, PRIMARY KEY (entry, recipient)) WITHOUT ROWID");
}

// Formats before counted every time that an entry was taken and not removed: those begin again, as
// suspects.
bool Index::ToFormat3()
{
    return Execute("ALTER TABLE chan ADD COLUMN suspect INTEGER NOT NULL DEFAULT 0") &&
           Execute("UPDATE chan SET suspect = 1, attempts = 0 WHERE attempts > 0") &&
           Execute(
               "DROP INDEX IF EXISTS chan_ready; CREATE INDEX chan_ready ON chan"
               " (channel, suspect, attempts, seq) WHERE owner IS NULL AND due = 0") &&
           Execute(kMarkTable) && Execute(kLargeIndex);
}

}  // namespace dl
