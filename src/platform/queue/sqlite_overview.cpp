// The channels at a glance, through a connection that reads only.

#include <sqlite3.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>

#include "platform/queue/delivery.h"
#include "platform/queue/entry_files.h"
#include "platform/queue/queue.h"

namespace dl
{
namespace
{

constexpr int kBusyMilliseconds = 2000;
// With the indexes alone, but for the times of closing: envelopes are never touched.
constexpr char kOverview[] =
    "SELECT channel, count(*), sum(owner IS NOT NULL), sum(%s), min(closed)"
    " FROM chan JOIN entry ON entry.id = chan.entry GROUP BY channel ORDER BY channel";

struct CloseIndex {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct EndStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Connection = std::unique_ptr<sqlite3, CloseIndex>;
using Statement = std::unique_ptr<sqlite3_stmt, EndStatement>;

Statement Prepare(const Connection& db, const std::string& sql)
{
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db.get(), sql.c_str(), -1, &statement, nullptr) != SQLITE_OK)
        return nullptr;
    return Statement(statement);
}

bool ReadNumber(const Connection& db, const char* sql, int* value)
{
    const Statement statement = Prepare(db, sql);
    if (!statement || sqlite3_step(statement.get()) != SQLITE_ROW)
        return false;
    *value = sqlite3_column_int(statement.get(), 0);
    return true;
}

// With `code`, that of SQLite; the connection is there also when it could not be opened.
Connection OpenToRead(const std::string& path, int* code)
{
    sqlite3* opened = nullptr;
    *code =
        sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    if (opened)
        sqlite3_busy_timeout(opened, kBusyMilliseconds);
    return Connection(opened);
}

std::string Words(const Connection& db)
{
    const int code = sqlite3_errcode(db.get()) & 0xff;
    const int error = sqlite3_system_errno(db.get());
    if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB)
        return "the index is damaged";
    if (code == SQLITE_BUSY)
        return "another process keeps the index locked";
    if (code == SQLITE_CANTOPEN || code == SQLITE_IOERR || code == SQLITE_PERM ||
        code == SQLITE_READONLY)
        return "the index cannot be opened" + (error ? ": " + PlainError(error) : std::string());
    return "the index is not as it should be";
}

bool ReadChannels(const Connection& db, int format, QueueOverview* overview)
{
    std::string sql = kOverview;
    int has_due = 1;
    if (format < 2 &&
        !ReadNumber(db, "SELECT count(*) FROM pragma_table_info('chan') WHERE name = 'due'",
                    &has_due))
        return false;
    sql.replace(sql.find("%s"), 2, has_due ? "due > 0" : "0");
    const Statement rows = Prepare(db, sql);
    if (!rows)
        return false;
    int code = 0;
    while ((code = sqlite3_step(rows.get())) == SQLITE_ROW) {
        ChannelOverview one;
        if (const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(rows.get(), 0)))
            one.channel = name;
        one.waiting = sqlite3_column_int64(rows.get(), 1);
        one.taken = sqlite3_column_int64(rows.get(), 2);
        one.put_back = sqlite3_column_int64(rows.get(), 3);
        one.oldest = sqlite3_column_int64(rows.get(), 4);
        overview->channels.push_back(std::move(one));
    }
    return code == SQLITE_DONE;
}

}  // namespace

QueueOverview ReadQueueOverview(const std::string& folder)
{
    using State = QueueOverview::State;
    QueueOverview overview;
    const std::string path = folder + "/index.db";
    struct stat status {
    };
    if (stat(path.c_str(), &status) != 0) {
        overview.state = errno == ENOENT ? State::kNoQueue : State::kFailed;
        overview.cause = PlainError(errno);
        return overview;
    }
    int code = SQLITE_OK;
    const Connection db = OpenToRead(path, &code);
    int application = 0;
    if (code != SQLITE_OK || !ReadNumber(db, "PRAGMA user_version", &overview.format) ||
        !ReadNumber(db, "PRAGMA application_id", &application)) {
        overview.cause = Words(db);
        return overview;
    }
    if (overview.format > kQueueFormat) {
        overview.state = State::kNewer;
        overview.cause = "the index was written by a newer version of this program (format " +
                         std::to_string(overview.format) + ")";
        return overview;
    }
    if (ReadChannels(db, overview.format, &overview))
        overview.state = State::kRead;
    else
        overview.cause = Words(db);
    return overview;
}

std::vector<EntryOverview> ReadQueueEntry(const std::string& folder, unsigned long id)
{
    std::vector<EntryOverview> entries;
    int code = SQLITE_OK;
    const Connection db = OpenToRead(folder + "/index.db", &code);
    if (code != SQLITE_OK)
        return entries;
    const Statement rows = Prepare(
        db,
        "SELECT channel, origin, closed, due, recipients, tries, owner IS NOT NULL, problem, states"
        " FROM chan JOIN entry ON entry.id = chan.entry LEFT JOIN delivery ON delivery.entry ="
        " chan.entry WHERE chan.entry = ?1");
    if (!rows || sqlite3_bind_int64(rows.get(), 1, static_cast<std::int64_t>(id)) != SQLITE_OK)
        return entries;
    const auto text = [&rows](int column) {
        const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(rows.get(), column));
        return std::string(bytes ? bytes : "");
    };
    while (sqlite3_step(rows.get()) == SQLITE_ROW) {
        EntryOverview one;
        one.channel = text(0);
        one.origin = text(1);
        one.closed = sqlite3_column_int64(rows.get(), 2);
        one.due = sqlite3_column_int64(rows.get(), 3);
        one.recipients = sqlite3_column_int64(rows.get(), 4);
        one.tries = sqlite3_column_int64(rows.get(), 5);
        one.taken = sqlite3_column_int(rows.get(), 6) != 0;
        one.problem = text(7);
        const auto* states = static_cast<const char*>(sqlite3_column_blob(rows.get(), 8));
        const int count = sqlite3_column_bytes(rows.get(), 8);
        for (int i = 0; states && i < count; ++i) {
            const auto state = static_cast<RecipientState>(states[i]);
            one.delivered += state == RecipientState::kDelivered ? 1 : 0;
            one.refused += state == RecipientState::kRefused ? 1 : 0;
        }
        entries.push_back(std::move(one));
    }
    return entries;
}

}  // namespace dl
