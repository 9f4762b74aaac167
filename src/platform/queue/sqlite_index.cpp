#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "platform/queue/entry_files.h"
#include "platform/queue/queue.h"
#include "platform/queue/sqlite_private.h"

namespace dl
{

namespace
{

constexpr int kFormat = kQueueFormat;     // PRAGMA user_version
constexpr int kApplication = 0x444c5131;  // PRAGMA application_id, "DLQ1"
constexpr int kBusyTries = 6000;          // of 5 ms and more: about half a minute
// Freed pages are not overwritten: that would write a big envelope once more when its message goes.
constexpr char kSettings[] =
    "PRAGMA cell_size_check=ON; PRAGMA secure_delete=OFF; PRAGMA journal_size_limit=67108864";

// entry      one row per queued message
// envelope   its encoded envelope, apart, so that looking through the entries stays quick
// chan       one row per channel that it is in; seq is the order of closing; owner is the reader
//            that has it; due is 0 when it may be taken, else the time from which on; suspect is 1
//            when it was in flight as a reader died; attempts are those that count
// counter    "reader": the last reader's number; "sync": only written to; "entry": the latest
//            identifier of an entry
// delivery   what became of the recipients of an entry that is handed over in parts: one byte each
// answer     and what was answered for those whose answer is still wanted
// mark       facts by name that became so with a commit
constexpr const char* kTables[] = {
    "CREATE TABLE entry (id INTEGER PRIMARY KEY, sender TEXT NOT NULL, recipients INTEGER NOT NULL,"
    " bytes INTEGER NOT NULL, closed INTEGER NOT NULL)",
    "CREATE TABLE envelope (entry INTEGER PRIMARY KEY, data BLOB NOT NULL)",
    "CREATE TABLE chan (seq INTEGER PRIMARY KEY AUTOINCREMENT, channel TEXT NOT NULL,"
    " entry INTEGER NOT NULL, priority INTEGER NOT NULL, origin TEXT NOT NULL DEFAULT '',"
    " attempts INTEGER NOT NULL DEFAULT 0, due INTEGER NOT NULL DEFAULT 0, owner INTEGER,"
    " suspect INTEGER NOT NULL DEFAULT 0)",
    "CREATE UNIQUE INDEX chan_entry ON chan (entry, channel, origin)",
    "CREATE INDEX chan_ready ON chan (channel, suspect, attempts, seq)"
    " WHERE owner IS NULL AND due = 0",
    "CREATE INDEX chan_due ON chan (channel, due) WHERE due > 0",
    "CREATE INDEX chan_owner ON chan (owner) WHERE owner IS NOT NULL",
    "CREATE TABLE counter (name TEXT PRIMARY KEY, value INTEGER NOT NULL)",
    "INSERT INTO counter VALUES ('reader', 0), ('sync', 0)",
    "CREATE TABLE delivery (entry INTEGER PRIMARY KEY, tries INTEGER NOT NULL DEFAULT 0,"
    " problem TEXT NOT NULL DEFAULT '', states BLOB NOT NULL)",
    "CREATE TABLE answer (entry INTEGER NOT NULL, recipient INTEGER NOT NULL, text TEXT NOT NULL,"
    " PRIMARY KEY (entry, recipient)) WITHOUT ROWID",
    kMarkTable,
    kLargeIndex,
};

// Not SQLite's own waiting, which goes up to 100 ms a step and lets one process wait for many
// others.
int WaitABit(void*, int tries)
{
    if (tries >= kBusyTries)
        return 0;
    std::this_thread::sleep_for(std::chrono::microseconds(std::min(50 * (tries + 1), 5000)));
    return 1;
}

}  // namespace

bool Index::Open(const std::string& path, const std::function<bool()>& may_be_new,
                 std::string* cause)
{
    constexpr int kHow = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    Note(sqlite3_open_v2(path.c_str(), &db_, kHow, nullptr));
    if (!Failed()) {
        sqlite3_extended_result_codes(db_, 1);
        sqlite3_busy_handler(db_, WaitABit, nullptr);
    }
    if (Failed() || !UseLog() || !Execute(kSettings)) {
        *cause = Cause();
        return false;
    }
    return BringUpToDate(path, kApplication, cause) && CheckFormat(may_be_new, cause);
}

// Several first users at once: the change to the log needs the file alone, and is refused without
// any waiting.
bool Index::UseLog()
{
    for (int tries = 0; tries < kBusyTries; ++tries) {
        ClearFailure();
        std::string mode;
        {
            Query query(*this, "PRAGMA journal_mode=WAL");
            if (query.Row())
                mode = query.Bytes(0);
        }
        if (mode == "wal")
            return true;
        if (!Failed())
            Note(SQLITE_CANTOPEN);  // a file system without shared memory
        if ((failure_ & 0xff) != SQLITE_BUSY)
            return false;
        WaitABit(nullptr, tries);
    }
    return false;
}

// Whether the index has tables, and of this program's format; a mere look, which waits for nobody.
bool Index::HasTables(std::string* cause)
{
    std::int64_t format = -1;
    std::int64_t application = -1;
    std::int64_t tables = -1;
    const auto read = [&](const char* sql, std::int64_t* value) {
        Query query(*this, sql);
        if (query.Row())
            *value = query.Int(0);
    };
    read("PRAGMA user_version", &format);
    read("PRAGMA application_id", &application);
    read("SELECT count(*) FROM sqlite_schema", &tables);
    if (Failed())
        *cause = Cause();
    else if (format > kFormat && application == kApplication)
        *cause = "the index was written by a newer version of this program (format " +
                 std::to_string(format) + ", this one knows formats up to " +
                 std::to_string(kFormat) + ")";
    else if (tables > 0 && (format != kFormat || application != kApplication))
        *cause = "the file is not the index of a message queue";
    return tables > 0;
}

bool Index::CheckFormat(const std::function<bool()>& may_be_new, std::string* cause)
{
    ClearFailure();
    (void)Execute("BEGIN");  // what it reads belongs together
    const bool has_tables = HasTables(cause);
    (void)Execute("COMMIT");
    if (has_tables || !cause->empty())
        return cause->empty();
    Transaction transaction(*this, Durable::kPower);
    if (!transaction.Begun())
        *cause = Cause();
    else if (HasTables(cause) && cause->empty())
        return true;  // another process was first
    if (cause->empty() && !may_be_new())
        *cause =
            "the index is missing or empty, but there are message files: put the index back, or "
            "move the files away";
    if (!cause->empty())
        return false;
    bool made = true;
    for (const char* sql : kTables)
        made = made && Execute(sql);
    made = made && Execute(("PRAGMA user_version=" + std::to_string(kFormat)).c_str()) &&
           Execute(("PRAGMA application_id=" + std::to_string(kApplication)).c_str());
    if (!made || !transaction.Commit())
        *cause = Cause();
    return cause->empty();
}

void Index::LeaveLogAtEnd()
{
    (void)sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);  // only slower
}

void Index::Close()
{
    for (const auto& [sql, statement] : statements_)
        sqlite3_finalize(statement);
    statements_.clear();
    sqlite3_close_v2(db_);
    db_ = nullptr;
}

void Index::Forget()
{
    statements_.clear();
    db_ = nullptr;
}

// The one place where SQLite's codes become words.
std::string Index::Cause() const
{
    switch (failure_ & 0xff) {
        case SQLITE_FULL:
            return "the disk is full";
        case SQLITE_READONLY:
            return "the index is read-only";
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return "the index is damaged";
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return "another process kept the index locked for too long";
        case SQLITE_CANTOPEN:
            return "the index cannot be opened" +
                   (system_error_ ? ": " + PlainError(system_error_) : std::string());
        case SQLITE_IOERR:
            return system_error_ == ENOSPC ? PlainError(ENOSPC)
                                           : "the index cannot be read or written";
        case SQLITE_PERM:
        case SQLITE_AUTH:
            return "no permission for the index";
        case SQLITE_NOMEM:
            return "out of memory";
        case SQLITE_TOOBIG:
            return "the envelope is too big for the index";
        default:
            return "the index is not as it should be";
    }
}

void Index::ClearFailure()
{
    failure_ = SQLITE_OK;
    system_error_ = 0;
}

// The first failure is the cause; what follows from it is not.
void Index::Note(int code)
{
    if (Failed() || code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE)
        return;
    failure_ = code;
    system_error_ = db_ ? sqlite3_system_errno(db_) : 0;
}

bool Index::Execute(const char* sql)
{
    const int code = sqlite3_exec(db_, sql, nullptr, nullptr, nullptr);
    Note(code);
    return code == SQLITE_OK;
}

bool Index::WriteBytes(const char* table, const char* column, std::int64_t row,
                       const std::vector<std::pair<int, std::string>>& pieces)
{
    sqlite3_blob* blob = nullptr;
    int code = sqlite3_blob_open(db_, "main", table, column, row, 1, &blob);
    for (const auto& [offset, bytes] : pieces)
        if (code == SQLITE_OK)
            code = sqlite3_blob_write(blob, bytes.data(), static_cast<int>(bytes.size()), offset);
    const int closed = sqlite3_blob_close(blob);
    Note(code != SQLITE_OK ? code : closed);
    return code == SQLITE_OK && closed == SQLITE_OK;
}

bool Index::Checkpoint()
{
    ClearFailure();
    Note(sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr));
    return !Failed();
}

sqlite3_stmt* Index::Prepare(const char* sql)
{
    sqlite3_stmt*& statement = statements_[sql];
    if (!statement)
        Note(sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
    return statement;
}

Query::~Query()
{
    if (!statement_)
        return;
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);  // a blob is the caller's
}

bool Query::Row()
{
    if (Failed())
        return false;
    const int code = sqlite3_step(statement_);
    Check(code);
    return code == SQLITE_ROW;
}

bool Query::Done()
{
    while (Row()) {
    }
    return !Failed();
}

std::string_view Query::Bytes(int column) const
{
    const void* bytes = sqlite3_column_blob(statement_, column);
    return bytes ? std::string_view(
                       static_cast<const char*>(bytes),
                       static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)))
                 : std::string_view();
}

void Query::Bind(const std::string& text)
{
    Check(sqlite3_bind_text64(statement_, ++bound_, text.data(), text.size(), SQLITE_TRANSIENT,
                              SQLITE_UTF8));
}

void Query::Bind(const Blob& blob)
{
    Check(sqlite3_bind_blob64(statement_, ++bound_, blob.bytes.data(), blob.bytes.size(),
                              SQLITE_STATIC));
}

void Query::Check(int code)
{
    if (code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE)
        return;
    failed_ = true;
    index_.Note(code);
}

Transaction::Transaction(Index& index, Durable durable) : index_(index)
{
    index_.ClearFailure();
    const int synchronous = durable == Durable::kPower ? 2 : 1;
    if (index_.synchronous_ != synchronous) {
        if (!index_.Execute(synchronous == 2 ? "PRAGMA synchronous=FULL"
                                             : "PRAGMA synchronous=NORMAL"))
            return;
        index_.synchronous_ = synchronous;
    }
    Query begin(index_, "BEGIN IMMEDIATE");
    open_ = begin.Done();
}

bool Transaction::Commit()
{
    if (!open_ || index_.Failed())
        return false;
    Query commit(index_, "COMMIT");
    open_ = !commit.Done();
    return !open_;
}

Transaction::~Transaction()
{
    if (open_)
        (void)index_.Execute("ROLLBACK");  // after some failures SQLite has rolled back already
}

}  // namespace dl
