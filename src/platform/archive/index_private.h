// What an archive's index holds, and what of it has to be shown anew.
//
// A posting's row is made when the posting is read. Pages are listings of rows, cut into leaves: a
// leaf is a range of keys of one listing, at most kLeafSize rows long, that is shown as one page.
// Adding a row touches the one leaf that its key falls into; a leaf that is full is split. So no
// page grows with the archive, and a page keeps its address when others come in between.
//
// Each change marks the pages that show it ("dirty") in the same transaction, and a mark is only
// cleared when the page is safely in its place: whatever ends the program in between, the next run
// goes on from the marks. The same holds for files that have to go ("gone").
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/archive/database_private.h"

namespace dl::archive
{

inline constexpr std::int64_t kFormatVersion = 3;
inline constexpr const char* kPagesFolder = "html";  // below the archive folder
inline constexpr std::int64_t kLeafSize = 200;
inline constexpr std::int64_t kShardSize = 500;

// In the order in which pages are written: what links to a page is written after it. The first five
// listings consist of leaves. Numbers are stored.
enum class PageKind : std::int64_t {
    kPosting = 1,       // value: the posting's id
    kThread = 2,        // the postings of thread `value`
    kMonth = 3,         // the postings of a month, 202611
    kThreadMonth = 4,   // the threads begun in a month
    kAuthor = 5,        // the postings of author `value`
    kAuthors = 6,       // all authors; value 0
    kAuthorsIndex = 7,  // value and page are 0 from here on
    kSearchShard = 8,   // but here: page is the number of the shard
    kSearchPage = 9,
    kThreadsFront = 10,
    kFeed = 11,
    kFront = 12
};

struct PageId {
    PageKind kind = PageKind::kFront;
    std::int64_t value = 0;
    std::int64_t page = 0;  // of a leaf, from 1
};

// Opens `<archive path>/index.db`, made when it is not there and brought up to date when it is of
// an older format. Throws when it is of a newer one.
[[nodiscard]] std::unique_ptr<Database> OpenIndex(const std::string& archive_path);
// Opens it for looking: nothing is made or brought up to date, so that it may be of any older
// format too. Null when there is no index; throws as above.
[[nodiscard]] std::unique_ptr<Database> OpenIndexToRead(const std::string& archive_path);
[[nodiscard]] std::int64_t FormatOf(Database& index);
// Brings the index of an older format up to date: a whole copy of it comes first, as
// "index.db.format-<n>" beside it. Throws when there is no copy, or the change cannot be made; the
// index is as it was then. Several programs may be at it at once.
void BringUpToDate(Database& index, const std::string& archive_path);

// Values by name; empty when not set.
[[nodiscard]] std::string Meta(Database& index, const std::string& name);
void SetMeta(Database& index, const std::string& name, const std::string& value);

void MarkPage(Database& index, const PageId& page);
// The pages that show something of every posting.
void MarkOverviews(Database& index);
void MarkAllPages(Database& index);
// A file or folder below the archive folder that has to go.
void MarkGone(Database& index, const std::string& path);
// The file of a page, as long as the index still knows its path.
void MarkPageGone(Database& index, const PageId& page);

// The listing of `kind` and `value` got, or lost, the row whose key is `key`. The row itself is
// added before and removed after.
void AddToListing(Database& index, PageKind kind, std::int64_t value, const std::string& key);
void RemoveFromListing(Database& index, PageKind kind, std::int64_t value, const std::string& key);
// Something that the page shows of the row with `key` has changed.
void MarkInListing(Database& index, PageKind kind, std::int64_t value, const std::string& key);
// Takes the whole listing away, its pages with it.
void DropListing(Database& index, PageKind kind, std::int64_t value);

struct Leaf {
    std::int64_t page = 0;  // 0: there is none
    std::int64_t count = 0;
    std::string low;          // its first key
    std::string high;         // the first key of the next leaf
    std::int64_t before = 0;  // the pages of its neighbours; 0: none
    std::int64_t after = 0;
};
[[nodiscard]] Leaf FindLeaf(Database& index, PageKind kind, std::int64_t value, std::int64_t page);

// Addresses below the archive's top.
[[nodiscard]] std::string PostingPath(const std::string& slug);
[[nodiscard]] std::string PostingFolder(const std::string& slug);  // of its attachments
[[nodiscard]] std::string ThreadPath(const std::string& slug, std::int64_t page = 1);
[[nodiscard]] std::string AuthorPath(const std::string& slug, std::int64_t page = 1);
// Of any page; empty when what it shows is not there any more.
[[nodiscard]] std::string PagePath(Database& index, const PageId& page);

}  // namespace dl::archive
