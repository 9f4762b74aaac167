// One SQLite database file of the store, for the files of this folder only.
//
// A rollback journal, because the files are copied byte for byte; FULL, because a filed message
// exists nowhere else. A statement that finds the file busy waits up to half a minute.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>

namespace dl
{

class StoreFile
{
 public:
    explicit StoreFile(sqlite3* db) : db_(db) {}
    ~StoreFile() { sqlite3_close(db_); }
    StoreFile(const StoreFile&) = delete;
    StoreFile& operator=(const StoreFile&) = delete;

    // Null when the file cannot be opened; with `create`, it and its tables are made when missing.
    static std::unique_ptr<StoreFile> Open(const std::string& path, const char* create);
    [[nodiscard]] bool Execute(const char* sql);
    // False, logged at level 1, for a file of a newer program: it is not touched.
    [[nodiscard]] bool IsKnownFormat(const std::string& path);
    [[nodiscard]] sqlite3* db() const { return db_; }

 private:
    sqlite3* db_;
};

// One use of a statement; arguments are bound in order.
class StoreQuery
{
 public:
    template <typename... Args>
    StoreQuery(StoreFile* file, const char* sql, const Args&... args)
    {
        if (!file || sqlite3_prepare_v2(file->db(), sql, -1, &statement_, nullptr) != SQLITE_OK)
            ok_ = false;
        (Bind(args), ...);
    }
    ~StoreQuery() { sqlite3_finalize(statement_); }
    StoreQuery(const StoreQuery&) = delete;
    StoreQuery& operator=(const StoreQuery&) = delete;

    // Goes to the next row. False at the end and after a failure.
    [[nodiscard]] bool Row();
    // Runs to the end; kStoreDone or kStoreFailed.
    [[nodiscard]] int Run();
    [[nodiscard]] bool Failed() const { return !ok_; }
    [[nodiscard]] std::int64_t Int(int column) const
    {
        return sqlite3_column_int64(statement_, column);
    }
    [[nodiscard]] std::string Text(int column) const;

 private:
    void Bind(std::int64_t value);
    void Bind(const std::string& text);

    sqlite3_stmt* statement_ = nullptr;
    int bound_ = 0;
    bool ok_ = true;
};

}  // namespace dl
