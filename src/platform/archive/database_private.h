// One connection to an archive's SQLite index, for the files of this folder only.
//
// Statements are kept, by the address of their text: `sql` is always a constant with static life,
// and a statement is not used again while rows of it are being read (read them into a vector
// first). Every failure is a CDlArchiveException that says in plain words what is wrong with which
// file. One thread per connection; other connections and processes may use the file at the same
// time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/archive/archive.h"

struct sqlite3;
struct sqlite3_stmt;

namespace dl::archive
{

class Database;

class Rows
{
 public:
    ~Rows();
    Rows(Rows&& other) noexcept;
    Rows& operator=(Rows&&) = delete;

    // Goes to the next row; false at the end.
    [[nodiscard]] bool Next();
    [[nodiscard]] std::int64_t Int(int column) const;
    [[nodiscard]] std::string Text(int column) const;
    [[nodiscard]] bool IsNull(int column) const;

 private:
    friend class Database;
    Rows(Database& database, sqlite3_stmt* statement) : database_(database), statement_(statement)
    {
    }
    Database& database_;
    sqlite3_stmt* statement_;
};

class Database
{
 public:
    enum class Open { kRead, kMake };
    Database(const std::string& path, Open how);
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    template <typename... Args>
    [[nodiscard]] Rows Query(const char* sql, const Args&... args)
    {
        sqlite3_stmt* statement = Prepare(sql);
        int at = 0;
        (Bind(statement, ++at, args), ...);
        return {*this, statement};
    }
    template <typename... Args>
    void Run(const char* sql, const Args&... args)
    {
        Rows rows = Query(sql, args...);
        while (rows.Next()) {
        }
    }
    // The first column of the first row; none without rows or when it is null.
    template <typename... Args>
    [[nodiscard]] std::optional<std::int64_t> Int(const char* sql, const Args&... args)
    {
        Rows rows = Query(sql, args...);
        if (!rows.Next() || rows.IsNull(0))
            return std::nullopt;
        return rows.Int(0);
    }
    template <typename... Args>
    [[nodiscard]] std::optional<std::string> Text(const char* sql, const Args&... args)
    {
        Rows rows = Query(sql, args...);
        if (!rows.Next() || rows.IsNull(0))
            return std::nullopt;
        return rows.Text(0);
    }
    [[nodiscard]] std::int64_t LastId() const;
    // Leaves the log of the index to later connections instead of ending it with this one, which
    // would cost several waits for the disk.
    void KeepLog();
    // Writes all of the index, as it is now, into `file`, which is empty or not there.
    void CopyTo(const std::string& file);
    // Several statements that give no rows.
    void Script(const char* sql);
    // Throws what `code` means.
    [[noreturn]] void Fail(int code) const;

 private:
    sqlite3_stmt* Prepare(const char* sql);
    void Bind(sqlite3_stmt* statement, int at, std::int64_t value);
    void Bind(sqlite3_stmt* statement, int at, std::string_view value);
    void Bind(sqlite3_stmt* statement, int at, const std::optional<std::int64_t>& value);

    std::string path_;
    bool looks_;
    sqlite3* db_ = nullptr;
    std::unordered_map<const char*, sqlite3_stmt*> statements_;
};

// Rolls back unless Commit came first.
class Transaction
{
 public:
    explicit Transaction(Database& database);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void Commit();

 private:
    Database& database_;
    bool open_ = true;
};

}  // namespace dl::archive
