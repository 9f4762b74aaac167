// The listings' leaves. The first leaf of a listing has the empty key as its low end and page 1,
// which is the listing's address, and stays while the listing has any row.
#include "platform/archive/index_private.h"

namespace dl::archive
{
namespace
{

constexpr const char* kAboveAll = "\xF4\x8F\xBF\xBF";  // no key begins with this character

std::int64_t Number(PageKind kind)
{
    return static_cast<std::int64_t>(kind);
}

// The `offset`-th key of [low, high) of a listing.
const char* KeyQuery(PageKind kind)
{
    switch (kind) {
        case PageKind::kThread:
            return "SELECT sort FROM posting WHERE thread=?1 AND sort>=?2 AND sort<?3"
                   " ORDER BY sort LIMIT 1 OFFSET ?4";
        case PageKind::kMonth:
            return "SELECT sort FROM posting WHERE month=?1 AND sort>=?2 AND sort<?3"
                   " ORDER BY sort LIMIT 1 OFFSET ?4";
        case PageKind::kThreadMonth:
            return "SELECT sort FROM thread WHERE month=?1 AND sort>=?2 AND sort<?3"
                   " ORDER BY sort LIMIT 1 OFFSET ?4";
        case PageKind::kAuthor:
            return "SELECT sort FROM posting WHERE author=?1 AND sort>=?2 AND sort<?3"
                   " ORDER BY sort LIMIT 1 OFFSET ?4";
        default:
            return "SELECT sort FROM author WHERE ?1=0 AND sort>=?2 AND sort<?3"
                   " ORDER BY sort LIMIT 1 OFFSET ?4";
    }
}

// The leaf that `key` falls into.
Leaf LeafOf(Database& index, PageKind kind, std::int64_t value, const std::string& key)
{
    Leaf leaf;
    {
        Rows rows = index.Query(
            "SELECT page, count, low FROM leaf WHERE kind=?1 AND value=?2 AND low<=?3"
            " ORDER BY low DESC LIMIT 1",
            Number(kind), value, key);
        if (!rows.Next())
            return leaf;
        leaf.page = rows.Int(0);
        leaf.count = rows.Int(1);
        leaf.low = rows.Text(2);
    }
    Rows next = index.Query(
        "SELECT low, page FROM leaf WHERE kind=?1 AND value=?2 AND low>?3 ORDER BY low LIMIT 1",
        Number(kind), value, leaf.low);
    const bool there = next.Next();
    leaf.high = there ? next.Text(0) : kAboveAll;
    leaf.after = there ? next.Int(1) : 0;
    return leaf;
}

void SetCount(Database& index, PageKind kind, std::int64_t value, const std::string& low,
              std::int64_t count)
{
    index.Run("UPDATE leaf SET count=?4 WHERE kind=?1 AND value=?2 AND low=?3", Number(kind), value,
              low, count);
}

void NewLeaf(Database& index, PageKind kind, std::int64_t value, const std::string& low,
             std::int64_t count)
{
    const std::int64_t page =
        index.Int("SELECT MAX(page) FROM leaf WHERE kind=?1 AND value=?2", Number(kind), value)
            .value_or(0) +
        1;
    index.Run("INSERT INTO leaf VALUES (?1, ?2, ?3, ?4, ?5)", Number(kind), value, low, page,
              count);
    MarkPage(index, {kind, value, page});
    if (page > 1)
        MarkPage(index, {kind, value, 1});  // lists all pages
}

// Makes room in a full leaf for `key`, whose row exists already.
void Split(Database& index, PageKind kind, std::int64_t value, const Leaf& leaf,
           const std::string& key)
{
    const auto key_at = [&](std::int64_t offset) {
        return index.Text(KeyQuery(kind), value, leaf.low, leaf.high, offset).value_or(key);
    };
    // Rows mostly come in order: then the old leaf stays full, and the new one begins with the row.
    const bool at_end = leaf.after == 0 && key_at(leaf.count) == key;
    const std::int64_t kept = at_end ? leaf.count : (leaf.count + 1) / 2;
    const std::string low = at_end ? key : key_at(kept);
    SetCount(index, kind, value, leaf.low, kept);
    NewLeaf(index, kind, value, low, leaf.count + 1 - kept);
    if (leaf.after)
        MarkPage(index, {kind, value, leaf.after});
}

}  // namespace

void AddToListing(Database& index, PageKind kind, std::int64_t value, const std::string& key)
{
    const Leaf leaf = LeafOf(index, kind, value, key);
    if (leaf.page == 0) {
        NewLeaf(index, kind, value, "", 1);
        return;
    }
    MarkPage(index, {kind, value, leaf.page});
    if (leaf.count >= kLeafSize)
        Split(index, kind, value, leaf, key);
    else
        SetCount(index, kind, value, leaf.low, leaf.count + 1);
}

void RemoveFromListing(Database& index, PageKind kind, std::int64_t value, const std::string& key)
{
    const Leaf leaf = LeafOf(index, kind, value, key);
    if (leaf.page == 0)
        return;
    MarkPage(index, {kind, value, leaf.page});
    SetCount(index, kind, value, leaf.low, leaf.count - 1);
    if (leaf.count > 1)
        return;
    const std::int64_t left =
        index.Int("SELECT SUM(count) FROM leaf WHERE kind=?1 AND value=?2", Number(kind), value)
            .value_or(0);
    if (left == 0) {
        DropListing(index, kind, value);
    } else if (!leaf.low.empty()) {
        const Leaf whole = FindLeaf(index, kind, value, leaf.page);
        MarkPageGone(index, {kind, value, leaf.page});
        index.Run("DELETE FROM leaf WHERE kind=?1 AND value=?2 AND low=?3", Number(kind), value,
                  leaf.low);
        for (const std::int64_t page : {whole.before, whole.after, std::int64_t{1}})
            if (page)
                MarkPage(index, {kind, value, page});
    }
}

void MarkInListing(Database& index, PageKind kind, std::int64_t value, const std::string& key)
{
    const Leaf leaf = LeafOf(index, kind, value, key);
    if (leaf.page)
        MarkPage(index, {kind, value, leaf.page});
}

void DropListing(Database& index, PageKind kind, std::int64_t value)
{
    std::int64_t page = 0;
    while (const auto next =
               index.Int("SELECT MIN(page) FROM leaf WHERE kind=?1 AND value=?2 AND page>?3",
                         Number(kind), value, page)) {
        page = *next;
        MarkPageGone(index, {kind, value, page});
    }
    index.Run("DELETE FROM leaf WHERE kind=?1 AND value=?2", Number(kind), value);
}

Leaf FindLeaf(Database& index, PageKind kind, std::int64_t value, std::int64_t page)
{
    const auto low = index.Text("SELECT low FROM leaf WHERE kind=?1 AND value=?2 AND page=?3",
                                Number(kind), value, page);
    if (!low)
        return {};
    Leaf leaf = LeafOf(index, kind, value, *low);
    leaf.before = index
                      .Int(
                          "SELECT page FROM leaf WHERE kind=?1 AND value=?2 AND low<?3"
                          " ORDER BY low DESC LIMIT 1",
                          Number(kind), value, *low)
                      .value_or(0);
    return leaf;
}

}  // namespace dl::archive
