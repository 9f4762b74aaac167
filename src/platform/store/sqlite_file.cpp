#include <memory>

#include "platform/log/log.h"

#include "platform/store/sqlite_private.h"
#include "platform/store/store.h"

namespace dl
{
namespace
{

constexpr int kBusyMilliseconds = 30'000;
// PRAGMA user_version. 0 is the same format, from before files were marked.
constexpr int kFormat = 1;
constexpr char kMark[] = "PRAGMA user_version=1";

}  // namespace

std::unique_ptr<StoreFile> StoreFile::Open(const std::string& path, const char* create)
{
    const int how = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (create ? SQLITE_OPEN_CREATE : 0);
    sqlite3* db = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &db, how, nullptr);
    auto file = std::make_unique<StoreFile>(db);  // SQLite gives a handle also when it fails
    if (result != SQLITE_OK)
        return nullptr;
    sqlite3_busy_timeout(db, kBusyMilliseconds);
    if (!file->IsKnownFormat(path) ||
        !file->Execute("PRAGMA journal_mode=DELETE; PRAGMA synchronous=FULL") ||
        (create && !file->Execute(create)) || (create && !file->Execute(kMark)))
        return nullptr;
    return file;
}

bool StoreFile::IsKnownFormat(const std::string& path)
{
    StoreQuery query(this, "PRAGMA user_version");
    if (!query.Row())
        return false;
    if (query.Int(0) <= kFormat)
        return true;
    LogMessage(1, "DL Store",
               (path + " was written by a newer version of this program (format " +
                std::to_string(query.Int(0)) + ", this one knows formats up to " +
                std::to_string(kFormat) + ")")
                   .c_str());
    return false;
}

bool StoreFile::Execute(const char* sql)
{
    return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

void StoreQuery::Bind(std::int64_t value)
{
    if (ok_)
        ok_ = sqlite3_bind_int64(statement_, ++bound_, value) == SQLITE_OK;
}

void StoreQuery::Bind(const std::string& text)
{
    if (ok_)
        ok_ = sqlite3_bind_text64(statement_, ++bound_, text.data(), text.size(), SQLITE_TRANSIENT,
                                  SQLITE_UTF8) == SQLITE_OK;
}

bool StoreQuery::Row()
{
    if (!ok_)
        return false;
    const int result = sqlite3_step(statement_);
    ok_ = result == SQLITE_ROW || result == SQLITE_DONE;
    return result == SQLITE_ROW;
}

int StoreQuery::Run()
{
    while (Row()) {
    }
    return ok_ ? kStoreDone : kStoreFailed;
}

std::string StoreQuery::Text(int column) const
{
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    return text ? std::string(text,
                              static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)))
                : "";
}

}  // namespace dl
