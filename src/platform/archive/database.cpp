#include <sqlite3.h>

#include <cassert>
#include <cerrno>

#include "platform/archive/database_private.h"
#include "platform/archive/failure_private.h"
#include "platform/files/machine_fault.h"

namespace dl::archive
{
namespace
{

constexpr int kBusyMilliseconds = 20'000;

const char* Meaning(int code)
{
    switch (code & 0xFF) {
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return "is damaged; rebuild the archive";
        case SQLITE_FULL:
            return "cannot grow";
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return "is in use by another program";
        case SQLITE_READONLY:
        case SQLITE_PERM:
        case SQLITE_AUTH:
            return "may not be written";
        case SQLITE_CANTOPEN:
            return "cannot be opened";
        case SQLITE_NOMEM:
            return "needs more memory";
        case SQLITE_IOERR:
            return "cannot be read or written";
        case SQLITE_CONSTRAINT:
        case SQLITE_TOOBIG:
        case SQLITE_MISMATCH:
            return "takes no such posting";
        default:
            return "cannot be used";
    }
}

bool IsDamage(int code)
{
    return (code & 0xFF) == SQLITE_CORRUPT || (code & 0xFF) == SQLITE_NOTADB;
}

// The errno of the read of index or log that failed last; 0: none did. What SQLite calls damaged
// may be a disk that cannot be read.
int ReadError(sqlite3* db)
{
    int error = 0;
    for (const int which : {SQLITE_FCNTL_FILE_POINTER, SQLITE_FCNTL_JOURNAL_POINTER}) {
        sqlite3_file* file = nullptr;
        if (error == 0 && sqlite3_file_control(db, "main", which, &file) == SQLITE_OK && file &&
            file->pMethods)
            (void)file->pMethods->xFileControl(file, SQLITE_FCNTL_LAST_ERRNO, &error);
    }
    return error;
}

// The errno of a fault of the machine behind `code`, 0 for none. `error` is the errno that SQLite
// saw last.
int MachineFault(int code, int error)
{
    switch (code & 0xFF) {
        case SQLITE_FULL:
            return ENOSPC;
        case SQLITE_NOMEM:
            return ENOMEM;
        case SQLITE_READONLY:
            return EROFS;
        case SQLITE_IOERR:
            return IsMachineFault(error) ? error : EIO;
        case SQLITE_CANTOPEN:
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return IsMachineFault(error) ? error : 0;
        default:
            return 0;
    }
}

// Throws what `code` means for `subject`.
[[noreturn]] void Throw(const std::string& subject, int code, int error)
{
    if (const int fault = MachineFault(code, error))
        FailWith(subject + " " + Meaning(IsDamage(code) ? SQLITE_IOERR : code), fault);
    const std::string text = subject + " " + Meaning(code);
    switch (code & 0xFF) {
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            throw CDlArchiveException(text, ArchiveFault::kDamaged);
        case SQLITE_CONSTRAINT:
        case SQLITE_TOOBIG:
        case SQLITE_MISMATCH:
            throw RefusedContent(text);
        default:
            FailWith(text, (code & 0xFF) == SQLITE_CANTOPEN ? error : 0);
    }
}

}  // namespace

Rows::Rows(Rows&& other) noexcept : database_(other.database_), statement_(other.statement_)
{
    other.statement_ = nullptr;
}

Rows::~Rows()
{
    if (statement_)
        sqlite3_reset(statement_);
}

bool Rows::Next()
{
    const int code = sqlite3_step(statement_);
    if (code == SQLITE_ROW)
        return true;
    if (code != SQLITE_DONE)
        database_.Fail(code);
    return false;
}

std::int64_t Rows::Int(int column) const
{
    return sqlite3_column_int64(statement_, column);
}

std::string Rows::Text(int column) const
{
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    return text ? std::string(text,
                              static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)))
                : "";
}

bool Rows::IsNull(int column) const
{
    return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

Database::Database(const std::string& path, Open how) : path_(path), looks_(how == Open::kRead)
{
    const int flags =
        how == Open::kMake ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE : SQLITE_OPEN_READONLY;
    const int code = sqlite3_open_v2(path.c_str(), &db_, flags, nullptr);
    if (code != SQLITE_OK) {
        const int error = db_ ? sqlite3_system_errno(db_) : ENOMEM;
        sqlite3_close(db_);
        Throw("the archive index " + path_, code, error);
    }
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, kBusyMilliseconds);
}

Database::~Database()
{
    for (const auto& [sql, statement] : statements_)
        sqlite3_finalize(statement);
    sqlite3_close(db_);
}

std::int64_t Database::LastId() const
{
    return sqlite3_last_insert_rowid(db_);
}

void Database::KeepLog()
{
    (void)sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);  // only slower
}

void Database::CopyTo(const std::string& file)
{
    sqlite3_stmt* copy = Prepare("VACUUM INTO ?1");
    Bind(copy, 1, file);
    const int code = sqlite3_step(copy);
    sqlite3_reset(copy);
    if (code != SQLITE_DONE)
        Throw("no copy of the index can be written to " + file + ": it", code,
              sqlite3_system_errno(db_));
}

void Database::Script(const char* sql)
{
    const int code = sqlite3_exec(db_, sql, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK)
        Fail(code);
}

void Database::Fail(int code) const
{
    // Whoever only looks lacks the right to, whatever the disk is.
    if (looks_ && (code & 0xFF) == SQLITE_READONLY)
        throw CDlArchiveException("the archive index " + path_ + " cannot be read by this user");
    Throw("the archive index " + path_, code,
          IsDamage(code) ? ReadError(db_) : sqlite3_system_errno(db_));
}

sqlite3_stmt* Database::Prepare(const char* sql)
{
    sqlite3_stmt*& statement = statements_[sql];
    if (!statement) {
        const int code =
            sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
        if (code != SQLITE_OK)
            Fail(code);
    }
    assert(!sqlite3_stmt_busy(statement));
    return statement;
}

void Database::Bind(sqlite3_stmt* statement, int at, std::int64_t value)
{
    if (const int code = sqlite3_bind_int64(statement, at, value); code != SQLITE_OK)
        Fail(code);
}

void Database::Bind(sqlite3_stmt* statement, int at, std::string_view value)
{
    const int code = sqlite3_bind_text64(statement, at, value.data(), value.size(),
                                         SQLITE_TRANSIENT, SQLITE_UTF8);
    if (code != SQLITE_OK)
        Fail(code);
}

void Database::Bind(sqlite3_stmt* statement, int at, const std::optional<std::int64_t>& value)
{
    if (value)
        Bind(statement, at, *value);
    else if (const int code = sqlite3_bind_null(statement, at); code != SQLITE_OK)
        Fail(code);
}

Transaction::Transaction(Database& database) : database_(database)
{
    database_.Run("BEGIN IMMEDIATE");
}

Transaction::~Transaction()
{
    if (!open_)
        return;
    try {
        database_.Run("ROLLBACK");
    } catch (const CDlArchiveException&) {
        // The failure that ended the transaction may have rolled it back; closing the connection
        // does so in any case.
    }
}

void Transaction::Commit()
{
    database_.Run("COMMIT");
    open_ = false;
}

}  // namespace dl::archive
