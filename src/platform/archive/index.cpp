#include <unistd.h>

#include <cerrno>
#include <random>

#include "platform/archive/archive.h"
#include "platform/archive/html.h"
#include "platform/archive/index_private.h"
#include "platform/log/format.h"

namespace dl::archive
{
namespace
{

// `sort` keys: of a posting its date and id, of a thread its first posting's, of an author the
// folded name and id. `address` keeps a posting's place permanently, also when it is removed.
// `incoming`: what has not been read yet, and what could not be read or shown, with why, since when
// and by which version of the reader (incoming_private.h); `announced` is when it was recorded
// before its file was there, 0 once it is. `source`: what each posting was made from.
constexpr const char* kSchema = R"(
CREATE TABLE meta (name TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;
CREATE TABLE incoming (
  id INTEGER PRIMARY KEY, stamp INTEGER NOT NULL, failed INTEGER NOT NULL DEFAULT 0,
  cause TEXT NOT NULL DEFAULT '', failed_at INTEGER NOT NULL DEFAULT 0,
  maker INTEGER NOT NULL DEFAULT 0, announced INTEGER NOT NULL DEFAULT 0);
CREATE TABLE source (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE);
CREATE TABLE posting (
  id INTEGER PRIMARY KEY, sort TEXT NOT NULL, slug TEXT NOT NULL UNIQUE, message_id TEXT NOT NULL,
  date INTEGER NOT NULL, month INTEGER NOT NULL, subject TEXT NOT NULL, name TEXT NOT NULL,
  author INTEGER NOT NULL, thread INTEGER NOT NULL, parent INTEGER, shard INTEGER NOT NULL,
  attachments INTEGER NOT NULL, excerpt TEXT NOT NULL, words TEXT NOT NULL);
CREATE UNIQUE INDEX posting_sort ON posting (sort);
CREATE INDEX posting_month ON posting (month, sort);
CREATE INDEX posting_thread ON posting (thread, sort);
CREATE INDEX posting_author ON posting (author, sort);
CREATE INDEX posting_message ON posting (message_id, id);
CREATE INDEX posting_parent ON posting (parent, sort);
CREATE INDEX posting_shard ON posting (shard, id);
CREATE TABLE thread (
  id INTEGER PRIMARY KEY, slug TEXT NOT NULL, sort TEXT NOT NULL, month INTEGER NOT NULL,
  subject TEXT NOT NULL, base TEXT NOT NULL, count INTEGER NOT NULL, last TEXT NOT NULL);
CREATE INDEX thread_month ON thread (month, sort);
CREATE INDEX thread_last ON thread (last);
CREATE INDEX thread_base ON thread (base, last);
CREATE TABLE author (
  id INTEGER PRIMARY KEY, key TEXT NOT NULL UNIQUE, slug TEXT NOT NULL UNIQUE, name TEXT NOT NULL,
  sort TEXT NOT NULL, count INTEGER NOT NULL);
CREATE UNIQUE INDEX author_sort ON author (sort);
CREATE TABLE address (hash TEXT NOT NULL, number INTEGER NOT NULL, id INTEGER NOT NULL,
  PRIMARY KEY (hash, number)) WITHOUT ROWID;
CREATE INDEX address_id ON address (id);
CREATE TABLE wanted (message_id TEXT NOT NULL, id INTEGER NOT NULL, PRIMARY KEY (message_id, id)) WITHOUT ROWID;
CREATE INDEX wanted_id ON wanted (id);
CREATE TABLE leaf (kind INTEGER NOT NULL, value INTEGER NOT NULL, low TEXT NOT NULL, page INTEGER NOT NULL,
  count INTEGER NOT NULL, PRIMARY KEY (kind, value, low)) WITHOUT ROWID;
CREATE UNIQUE INDEX leaf_page ON leaf (kind, value, page);
CREATE TABLE shard (number INTEGER PRIMARY KEY, count INTEGER NOT NULL);
CREATE TABLE dirty (kind INTEGER NOT NULL, value INTEGER NOT NULL, page INTEGER NOT NULL,
  PRIMARY KEY (kind, value, page)) WITHOUT ROWID;
CREATE TABLE gone (path TEXT PRIMARY KEY) WITHOUT ROWID;
)";

// Addresses of authors' pages are made with it, so that nobody can find out from them whether a
// mail address he guesses is among the authors.
std::string NewSalt()
{
    std::random_device random;
    std::string salt;
    for (int i = 0; i < 4; ++i)
        salt += FormatText("%08x", random());
    return salt;
}

void MakeTables(Database& index)
{
    Transaction transaction(index);
    if (FormatOf(index) != 0)
        return;  // another process was first
    index.Script(kSchema);
    SetMeta(index, "salt", NewSalt());
    index.Script(("PRAGMA user_version=" + std::to_string(kFormatVersion)).c_str());
    transaction.Commit();
}

std::string Sharded(const char* top, const std::string& slug)
{
    return std::string(top) + "/" + slug.substr(0, 2) + "/" + slug;
}

std::string PageSuffix(std::int64_t page)
{
    return page > 1 ? "_" + std::to_string(page) + ".html" : ".html";
}

void RefuseNewer(std::int64_t format, const std::string& archive_path)
{
    if (format > kFormatVersion)
        throw CDlArchiveException(
            FormatText("the archive index %s/index.db was written by a newer version of this "
                       "program (format %lld, this one knows formats up to %lld)",
                       archive_path.c_str(), static_cast<long long>(format),
                       static_cast<long long>(kFormatVersion)),
            ArchiveFault::kNewer);
}

}  // namespace

std::int64_t FormatOf(Database& index)
{
    return index.Int("PRAGMA user_version").value_or(0);
}

std::unique_ptr<Database> OpenIndexToRead(const std::string& archive_path)
{
    const std::string path = archive_path + "/index.db";
    if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT)
        return nullptr;
    auto index = std::make_unique<Database>(path, Database::Open::kRead);
    RefuseNewer(FormatOf(*index), archive_path);
    return index;
}

std::unique_ptr<Database> OpenIndex(const std::string& archive_path)
{
    auto index = std::make_unique<Database>(archive_path + "/index.db", Database::Open::kMake);
    index->Run("PRAGMA journal_mode=WAL");
    index->Run("PRAGMA synchronous=FULL");
    index->Run("PRAGMA cache_size=-16384");
    const std::int64_t format = FormatOf(*index);
    RefuseNewer(format, archive_path);
    if (format == 0)
        MakeTables(*index);
    else if (format < kFormatVersion)
        BringUpToDate(*index, archive_path);
    return index;
}

std::string Meta(Database& index, const std::string& name)
{
    return index.Text("SELECT value FROM meta WHERE name=?1", name).value_or("");
}

void SetMeta(Database& index, const std::string& name, const std::string& value)
{
    index.Run("INSERT OR REPLACE INTO meta VALUES (?1, ?2)", name, value);
}

void MarkPage(Database& index, const PageId& page)
{
    index.Run("INSERT OR IGNORE INTO dirty VALUES (?1, ?2, ?3)",
              static_cast<std::int64_t>(page.kind), page.value, page.page);
}

void MarkOverviews(Database& index)
{
    for (const PageKind kind :
         {PageKind::kAuthorsIndex, PageKind::kThreadsFront, PageKind::kFeed, PageKind::kFront})
        MarkPage(index, {kind});
}

void MarkAllPages(Database& index)
{
    index.Run("INSERT OR IGNORE INTO dirty SELECT 1, id, 0 FROM posting");
    index.Run("INSERT OR IGNORE INTO dirty SELECT kind, value, page FROM leaf");
    index.Run("INSERT OR IGNORE INTO dirty SELECT 8, 0, number FROM shard");
    MarkPage(index, {PageKind::kSearchPage});
    MarkOverviews(index);
}

void MarkGone(Database& index, const std::string& path)
{
    index.Run("INSERT OR IGNORE INTO gone VALUES (?1)", path);
}

void MarkPageGone(Database& index, const PageId& page)
{
    if (const std::string path = PagePath(index, page); !path.empty())
        MarkGone(index, kPagesFolder + ("/" + path));
}

std::string PostingPath(const std::string& slug)
{
    return Sharded("p", slug) + ".html";
}

std::string PostingFolder(const std::string& slug)
{
    return Sharded("p", slug);
}

std::string ThreadPath(const std::string& slug, std::int64_t page)
{
    return Sharded("t", slug) + PageSuffix(page);
}

std::string AuthorPath(const std::string& slug, std::int64_t page)
{
    return Sharded("a", slug) + PageSuffix(page);
}

std::string PagePath(Database& index, const PageId& page)
{
    switch (page.kind) {
        case PageKind::kPosting: {
            const auto slug = index.Text("SELECT slug FROM posting WHERE id=?1", page.value);
            return slug ? PostingPath(*slug) : "";
        }
        case PageKind::kThread: {
            const auto slug = index.Text("SELECT slug FROM thread WHERE id=?1", page.value);
            return slug ? ThreadPath(*slug, page.page) : "";
        }
        case PageKind::kAuthor: {
            const auto slug = index.Text("SELECT slug FROM author WHERE id=?1", page.value);
            return slug ? AuthorPath(*slug, page.page) : "";
        }
        case PageKind::kMonth:
            return "month/" + MonthName(page.value) + PageSuffix(page.page);
        case PageKind::kThreadMonth:
            return "threads/" + MonthName(page.value) + PageSuffix(page.page);
        case PageKind::kAuthors:
            return "authors/" + std::to_string(page.page) + ".html";
        case PageKind::kAuthorsIndex:
            return "authors/index.html";
        case PageKind::kSearchShard:
            return "search/" + std::to_string(page.page) + ".js";
        case PageKind::kSearchPage:
            return "search.html";
        case PageKind::kThreadsFront:
            return "threads/index.html";
        case PageKind::kFeed:
            return "feed.xml";
        case PageKind::kFront:
            return "index.html";
    }
    return "";
}

}  // namespace dl::archive
