// Each kind of page, made from the index.
//
// A maker gives the whole page, or nothing when what it shows is not there any more. It reads the
// index only; the page of a posting also reads the posting's file, and puts attachments that are
// not there yet into the batch.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/archive/html.h"
#include "platform/archive/index_private.h"
#include "platform/archive/page_files.h"

namespace dl::archive
{

struct Site {
    Database& index;
    std::string archive;      // the archive folder
    std::string list;         // its address
    std::string title;        // never empty
    std::string description;  // may be empty
    std::string url;          // where the pages are served, with a last "/"; empty: not known
};

// A posting as listings show it.
struct Entry {
    std::int64_t id = 0;
    std::string slug;
    std::int64_t date = 0;
    std::string subject;
    std::string name;
    std::string excerpt;
    std::int64_t attachments = 0;
    std::int64_t parent = 0;  // 0: none
    std::int64_t thread = 0;
};
// The rows of a query that gives exactly kEntryColumns.
#define DL_ENTRY_COLUMNS \
    "id, slug, date, subject, name, excerpt, attachments, coalesce(parent, 0), thread"
[[nodiscard]] std::vector<Entry> ReadEntries(Rows rows);
[[nodiscard]] std::optional<Entry> ReadEntry(Rows rows);

// Subject as a link, author and day; `excerpt` adds the beginning of the text.
[[nodiscard]] std::string EntryHtml(const Entry& entry, const std::string& up, bool excerpt);
[[nodiscard]] std::string EntryList(const std::vector<Entry>& entries, const std::string& up,
                                    bool excerpt);
// "1 posting", "12,345 postings".
[[nodiscard]] std::string Count(std::int64_t number, const char* one, const char* many);
// Links to the neighbours of a leaf, and on the first one to all.
[[nodiscard]] std::string Pager(const Site& site, const PageId& page, const Leaf& leaf,
                                const std::string& up, const char* before, const char* after);
[[nodiscard]] std::string SearchForm(const std::string& up, bool hidden);

// What cannot be shown of the posting is said on the page and in `trouble`.
[[nodiscard]] std::optional<std::string> PostingPage(const Site& site, std::int64_t id,
                                                     PageBatch* batch, std::string* trouble);
[[nodiscard]] std::optional<std::string> ThreadPage(const Site& site, const PageId& page);
[[nodiscard]] std::optional<std::string> MonthPage(const Site& site, const PageId& page);
[[nodiscard]] std::optional<std::string> ThreadMonthPage(const Site& site, const PageId& page);
[[nodiscard]] std::optional<std::string> AuthorPage(const Site& site, const PageId& page);
[[nodiscard]] std::optional<std::string> AuthorsPage(const Site& site, const PageId& page);
[[nodiscard]] std::string AuthorsIndexPage(const Site& site);
[[nodiscard]] std::string ThreadsFrontPage(const Site& site);
[[nodiscard]] std::string FrontPage(const Site& site);
[[nodiscard]] std::string FeedPage(const Site& site);
[[nodiscard]] std::string SearchPage(const Site& site);
[[nodiscard]] std::string SearchShard(const Site& site, std::int64_t number);

}  // namespace dl::archive
