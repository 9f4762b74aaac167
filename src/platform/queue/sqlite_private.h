// The index of the embedded queue: one SQLite connection with kept statements.
//
// Write-ahead log, every writing transaction BEGIN IMMEDIATE: a deferred one that reads first fails
// at once when another process commits in between. Failures are remembered until the next
// transaction begins, and told by Cause() in plain words. One thread at a time; the owner locks.
// Not for use after a fork: Forget() then.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace dl
{

// What format 3 has brought; a new index and a migrated one get the same.
inline constexpr char kMarkTable[] =
    "CREATE TABLE mark (name TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID";
// Messages of more bytes are found by their size.
inline constexpr std::int64_t kLargeMessage = 1 << 20;
inline constexpr char kLargeIndex[] =
    "CREATE INDEX entry_large ON entry (bytes) WHERE bytes > 1048576";
// SQLite sees that the index holds them all only when the limit stands in the text.
inline constexpr char kLargest[] =
    "SELECT max(bytes) FROM entry INDEXED BY entry_large WHERE bytes > 1048576";

class Index
{
 public:
    Index() = default;
    ~Index() { Close(); }
    Index(const Index&) = delete;
    Index& operator=(const Index&) = delete;

    // Opens the file, or makes it. An index without tables is given them when `may_be_new` says so,
    // which is asked while no other process can. False with `cause` when it does not or the file
    // cannot be used.
    [[nodiscard]] bool Open(const std::string& path, const std::function<bool()>& may_be_new,
                            std::string* cause);
    void Close();
    // Close is not to bring the log into the index: the next process finds it there.
    void LeaveLogAtEnd();
    // Leaves the connection to the process that opened it.
    void Forget();

    [[nodiscard]] std::string Cause() const;
    [[nodiscard]] bool Failed() const { return failure_ != SQLITE_OK; }
    void ClearFailure();
    // Copies the log's pages into the file, which puts everything committed on disk; needs no new
    // space.
    [[nodiscard]] bool Checkpoint();
    // Replaces bytes of a blob where it lies: the offset and the new bytes of each piece.
    [[nodiscard]] bool WriteBytes(const char* table, const char* column, std::int64_t row,
                                  const std::vector<std::pair<int, std::string>>& pieces);
    [[nodiscard]] std::int64_t Changes() const { return sqlite3_changes64(db_); }

 private:
    friend class Query;
    friend class Transaction;
    sqlite3_stmt* Prepare(const char* sql);
    void Note(int code);
    bool Execute(const char* sql);
    bool UseLog();
    // Migrates an older format (sqlite_migration.cpp). True also when there is nothing to do.
    bool BringUpToDate(const std::string& path, int application, std::string* cause);
    bool CopyTo(const std::string& backup, std::string* cause);
    bool ReadOlderFormat(int application, std::int64_t* format);
    bool MigrateFrom(std::int64_t format);
    bool ToFormat2();
    bool ToFormat3();
    bool HasTables(std::string* cause);
    bool CheckFormat(const std::function<bool()>& may_be_new, std::string* cause);

    sqlite3* db_ = nullptr;
    std::unordered_map<const char*, sqlite3_stmt*> statements_;  // by the address of their text
    int failure_ = SQLITE_OK;
    int system_error_ = 0;
    int synchronous_ = -1;
};

// An argument that is stored as bytes; it must live as long as the query.
struct Blob {
    std::string_view bytes;
};

// One use of a kept statement. `sql` is a constant with static life; arguments are bound in order.
class Query
{
 public:
    template <typename... Args>
    Query(Index& index, const char* sql, const Args&... args)
        : index_(index), statement_(index.Prepare(sql))
    {
        if (statement_)
            (Bind(args), ...);
    }
    ~Query();
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    // Goes to the next row. False at the end and after a failure.
    [[nodiscard]] bool Row();
    // Goes to the end. False after a failure.
    bool Done();
    [[nodiscard]] bool Failed() const { return failed_ || !statement_; }

    [[nodiscard]] std::int64_t Int(int column) const
    {
        return sqlite3_column_int64(statement_, column);
    }
    [[nodiscard]] bool IsNull(int column) const
    {
        return sqlite3_column_type(statement_, column) == SQLITE_NULL;
    }
    [[nodiscard]] std::string_view Bytes(int column) const;

 private:
    void Bind(std::int64_t value) { Check(sqlite3_bind_int64(statement_, ++bound_, value)); }
    void Bind(const std::string& text);
    void Bind(const Blob& blob);
    void Check(int code);

    Index& index_;
    sqlite3_stmt* statement_;
    int bound_ = 0;
    bool failed_ = false;
};

enum class Durable {
    kProcess,
    kPower
};  // what a commit survives: the end of the process, a power loss

// Rolls back unless Commit came first.
class Transaction
{
 public:
    Transaction(Index& index, Durable durable);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    [[nodiscard]] bool Begun() const { return open_; }
    // False also when a query failed since the beginning: nothing is half done.
    [[nodiscard]] bool Commit();

 private:
    Index& index_;
    bool open_ = false;
};

}  // namespace dl
