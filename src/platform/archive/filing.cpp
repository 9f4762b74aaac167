#include "platform/archive/filing_private.h"

#include "platform/address/address.h"
#include "platform/archive/html.h"
#include "platform/log/format.h"
#include "platform/mime/read_posting.h"

namespace dl::archive
{
namespace
{

std::string SortKey(std::int64_t date, std::int64_t id)
{
    return FormatText("%011lld%010lld", static_cast<long long>(date), static_cast<long long>(id));
}

// The posting's place for good: made from its Message-ID, with a number when another posting has
// the same one. An id that was here with this Message-ID before gets its old place back.
std::string TakeAddress(Database& index, const Facts& facts)
{
    std::optional<std::int64_t> number =
        index.Int("SELECT number FROM address WHERE id=?1 AND hash=?2", facts.id, facts.hash);
    if (!number) {
        number =
            index.Int("SELECT MAX(number) FROM address WHERE hash=?1", facts.hash).value_or(0) + 1;
        index.Run("INSERT INTO address VALUES (?1, ?2, ?3)", facts.hash, *number, facts.id);
    }
    return *number == 1 ? facts.hash : facts.hash + "-" + std::to_string(*number);
}

std::int64_t AuthorOf(Database& index, const Facts& facts)
{
    if (const auto known = index.Int("SELECT id FROM author WHERE key=?1", facts.author_key))
        return *known;
    const std::string slug = Sha256Hex(Meta(index, "salt") + "\n" + facts.author_key).substr(0, 20);
    std::size_t start = facts.name.find_first_not_of("\"'([<. ");
    if (start == std::string::npos)
        start = 0;
    const std::string folded = LowerCase(facts.name.substr(start));
    index.Run("INSERT INTO author (key, slug, name, sort, count) VALUES (?1, ?2, ?3, ?4, 0)",
              facts.author_key, slug, facts.name, folded + "\t" + slug);
    const std::int64_t author = index.LastId();
    AddToListing(index, PageKind::kAuthors, 0, folded + "\t" + slug);
    return author;
}

void TouchAuthor(Database& index, std::int64_t author, std::int64_t count)
{
    index.Run("UPDATE author SET count=count+?2 WHERE id=?1", author, count);
    const std::string key = index.Text("SELECT sort FROM author WHERE id=?1", author).value_or("");
    if (index.Int("SELECT count FROM author WHERE id=?1", author).value_or(0) > 0) {
        MarkInListing(index, PageKind::kAuthors, 0, key);
        return;
    }
    RemoveFromListing(index, PageKind::kAuthors, 0, key);
    index.Run("DELETE FROM author WHERE id=?1", author);
}

// The shard of the search that takes the next posting.
std::int64_t TakeShard(Database& index)
{
    const std::int64_t last = index.Int("SELECT MAX(number) FROM shard").value_or(0);
    if (last > 0 && index.Int("SELECT count FROM shard WHERE number=?1", last) < kShardSize) {
        index.Run("UPDATE shard SET count=count+1 WHERE number=?1", last);
        MarkPage(index, {PageKind::kSearchShard, 0, last});
        return last;
    }
    index.Run("INSERT INTO shard VALUES (?1, 1)", last + 1);
    MarkPage(index, {PageKind::kSearchShard, 0, last + 1});
    MarkPage(index, {PageKind::kSearchPage});  // says how many shards there are
    return last + 1;
}

void MarkPosting(Database& index, const std::optional<std::int64_t>& id)
{
    if (id)
        MarkPage(index, {PageKind::kPosting, *id});
}

// The postings whose pages link to the one with `sort`: before and after it by date and in its
// thread.
void MarkNeighbours(Database& index, const std::string& sort, std::int64_t thread)
{
    MarkPosting(index,
                index.Int("SELECT id FROM posting WHERE sort<?1 ORDER BY sort DESC LIMIT 1", sort));
    MarkPosting(index,
                index.Int("SELECT id FROM posting WHERE sort>?1 ORDER BY sort LIMIT 1", sort));
    MarkPosting(index, index.Int("SELECT id FROM posting WHERE thread=?2 AND sort<?1"
                                 " ORDER BY sort DESC LIMIT 1",
                                 sort, thread));
    MarkPosting(index, index.Int("SELECT id FROM posting WHERE thread=?2 AND sort>?1"
                                 " ORDER BY sort LIMIT 1",
                                 sort, thread));
}

std::int64_t NewThread(Database& index, const Facts& facts, const std::string& slug,
                       const std::string& sort, std::int64_t month)
{
    // The address of its page. It may be taken by a thread that has lost the posting which began
    // it, when that comes again.
    std::string own = slug;
    if (index.Int("SELECT 1 FROM thread WHERE slug=?1", own))
        own += "-" + std::to_string(facts.id);
    const std::int64_t thread = index.Int("SELECT MAX(id) FROM thread").value_or(0) + 1;
    const std::string key = sort + "-" + std::to_string(thread);
    index.Run("INSERT INTO thread VALUES (?1, ?2, ?3, ?4, ?5, ?6, 0, ?7)", thread, own, key, month,
              facts.subject, facts.base_subject, sort);
    AddToListing(index, PageKind::kThreadMonth, month, key);
    return thread;
}

}  // namespace

void FilePosting(Database& index, const Facts& facts)
{
    (void)UnfilePosting(index, facts.id);  // mostly there was none
    const std::string sort = SortKey(facts.date, facts.id);
    const std::int64_t month = MonthOf(facts.date);
    const std::string slug = TakeAddress(index, facts);
    const Place place = FindPlace(index, facts);
    const std::int64_t thread =
        place.thread ? *place.thread : NewThread(index, facts, slug, sort, month);
    const std::int64_t author = AuthorOf(index, facts);
    index.Run(
        "INSERT INTO posting VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14,"
        " ?15)",
        facts.id, sort, slug, facts.message_id, facts.date, month, facts.subject, facts.name,
        author, thread, place.parent, TakeShard(index), facts.attachments, facts.excerpt,
        facts.words);
    AddToListing(index, PageKind::kMonth, month, sort);
    AddToListing(index, PageKind::kThread, thread, sort);
    AddToListing(index, PageKind::kAuthor, author, sort);
    TouchAuthor(index, author, 1);
    TouchThread(index, thread, 1);
    MarkPage(index, {PageKind::kPosting, facts.id});
    MarkPosting(index, place.parent);
    MarkNeighbours(index, sort, thread);
    MarkOverviews(index);
    if (place.waits_for)
        index.Run("INSERT OR IGNORE INTO wanted VALUES (?1, ?2)", *place.waits_for, facts.id);
    if (!facts.message_id.empty())
        AdoptReplies(index, facts.id, facts.message_id);
}

bool UnfilePosting(Database& index, std::int64_t id)
{
    std::string sort;
    std::string slug;
    std::int64_t month = 0;
    std::int64_t author = 0;
    std::int64_t thread = 0;
    std::int64_t shard = 0;
    std::optional<std::int64_t> parent;
    {
        Rows row = index.Query(
            "SELECT sort, slug, month, author, thread, shard, parent FROM posting WHERE id=?1", id);
        if (!row.Next())
            return false;
        sort = row.Text(0);
        slug = row.Text(1);
        month = row.Int(2);
        author = row.Int(3);
        thread = row.Int(4);
        shard = row.Int(5);
        if (!row.IsNull(6))
            parent = row.Int(6);
    }
    MarkNeighbours(index, sort, thread);
    MarkPosting(index, parent);
    index.Run("INSERT OR IGNORE INTO dirty SELECT 1, id, 0 FROM posting WHERE parent=?1", id);
    MarkThread(index, thread);
    RemoveFromListing(index, PageKind::kMonth, month, sort);
    RemoveFromListing(index, PageKind::kThread, thread, sort);
    RemoveFromListing(index, PageKind::kAuthor, author, sort);
    TouchAuthor(index, author, -1);
    index.Run("UPDATE posting SET parent=?2 WHERE parent=?1", id, parent);
    index.Run("DELETE FROM posting WHERE id=?1", id);
    index.Run("DELETE FROM wanted WHERE id=?1", id);
    index.Run("UPDATE shard SET count=count-1 WHERE number=?1", shard);
    TouchThread(index, thread, -1);
    MarkPage(index, {PageKind::kSearchShard, 0, shard});
    MarkOverviews(index);
    MarkGone(index, kPagesFolder + ("/" + PostingPath(slug)));
    MarkGone(index, kPagesFolder + ("/" + PostingFolder(slug)));
    return true;
}

}  // namespace dl::archive
