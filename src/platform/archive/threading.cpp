#include <algorithm>
#include <vector>

#include "platform/archive/filing_private.h"
#include "platform/archive/html.h"
#include "platform/log/format.h"

namespace dl::archive
{
namespace
{

// A reply without references belongs to a thread with its subject only while that is fresh.
constexpr std::int64_t kSubjectSeconds = 60LL * 24 * 60 * 60;
// A reply is not hung below a posting when it takes longer than this to see that no ring results.
constexpr int kMaxDepth = 1000;

std::optional<std::int64_t> ThreadOf(Database& index, std::int64_t id)
{
    return index.Int("SELECT thread FROM posting WHERE id=?1", id);
}

bool IsAbove(Database& index, std::int64_t above, std::int64_t id)
{
    std::optional<std::int64_t> at = id;
    for (int depth = 0; at; ++depth) {
        if (*at == above || depth == kMaxDepth)
            return true;
        at = index.Int("SELECT parent FROM posting WHERE id=?1", *at);
    }
    return false;
}

void MoveAll(Database& index, std::int64_t from, std::int64_t to)
{
    std::vector<std::string> keys;
    {
        Rows rows = index.Query("SELECT sort FROM posting WHERE thread=?1", from);
        while (rows.Next())
            keys.push_back(rows.Text(0));
    }
    index.Run("INSERT OR IGNORE INTO dirty SELECT 1, id, 0 FROM posting WHERE thread=?1", from);
    DropListing(index, PageKind::kThread, from);
    for (const std::string& key : keys) {
        index.Run("UPDATE posting SET thread=?2 WHERE sort=?1", key, to);
        AddToListing(index, PageKind::kThread, to, key);
        for (const char* neighbour :
             {"INSERT OR IGNORE INTO dirty SELECT 1, id, 0 FROM (SELECT id FROM posting WHERE"
              " thread=?1 AND sort<?2 ORDER BY sort DESC LIMIT 1)",
              "INSERT OR IGNORE INTO dirty SELECT 1, id, 0 FROM (SELECT id FROM posting WHERE"
              " thread=?1 AND sort>?2 ORDER BY sort LIMIT 1)"})
            index.Run(neighbour, to, key);
    }
    const auto count = static_cast<std::int64_t>(keys.size());
    TouchThread(index, to, count);
    TouchThread(index, from, -count);
}

// Joins two threads; the smaller one moves, so that no posting moves often.
void Join(Database& index, std::int64_t one, std::int64_t other)
{
    if (one == other)
        return;
    const auto size = [&](std::int64_t thread) {
        return index.Int("SELECT count FROM thread WHERE id=?1", thread).value_or(0);
    };
    if (size(one) < size(other))
        std::swap(one, other);
    MoveAll(index, other, one);
}

}  // namespace

Place FindPlace(Database& index, const Facts& facts)
{
    Place place;
    for (const std::string& reference : facts.references) {
        const auto found =
            index.Int("SELECT id FROM posting WHERE message_id=?1 ORDER BY id LIMIT 1", reference);
        if (found) {
            place.parent = found;
            place.thread = ThreadOf(index, *found);
            return place;
        }
        if (!place.waits_for)
            place.waits_for = reference;
    }
    // Replies to a posting that is not here stand together.
    if (place.waits_for)
        if (const auto sibling =
                index.Int("SELECT id FROM wanted WHERE message_id=?1 LIMIT 1", *place.waits_for)) {
            place.thread = ThreadOf(index, *sibling);
            return place;
        }
    if (!facts.reply || facts.base_subject.empty())
        return place;
    const std::string fresh = FormatText(
        "%011lld", static_cast<long long>(std::max<std::int64_t>(0, facts.date - kSubjectSeconds)));
    place.thread =
        index.Int("SELECT id FROM thread WHERE base=?1 AND last>=?2 ORDER BY last DESC LIMIT 1",
                  facts.base_subject, fresh);
    return place;
}

void AdoptReplies(Database& index, std::int64_t id, const std::string& message_id)
{
    std::vector<std::int64_t> replies;
    {
        Rows rows =
            index.Query("SELECT id FROM wanted WHERE message_id=?1 AND id<>?2", message_id, id);
        while (rows.Next())
            replies.push_back(rows.Int(0));
    }
    for (const std::int64_t reply : replies) {
        const auto before = index.Int("SELECT parent FROM posting WHERE id=?1", reply);
        if (!IsAbove(index, reply, id)) {
            if (before)
                MarkPage(index, {PageKind::kPosting, *before});
            index.Run("UPDATE posting SET parent=?2 WHERE id=?1", reply, id);
        }
        MarkPage(index, {PageKind::kPosting, reply});
        MarkPage(index, {PageKind::kPosting, id});
        const auto mine = ThreadOf(index, id);
        const auto theirs = ThreadOf(index, reply);
        if (mine && theirs)
            Join(index, *mine, *theirs);
        if (const auto thread = ThreadOf(index, id))
            MarkInListing(index, PageKind::kThread, *thread,
                          index.Text("SELECT sort FROM posting WHERE id=?1", reply).value_or(""));
    }
    if (!replies.empty())
        index.Run("DELETE FROM wanted WHERE message_id=?1", message_id);
}

void MarkThread(Database& index, std::int64_t thread)
{
    index.Run(
        "INSERT OR IGNORE INTO dirty SELECT kind, value, page FROM leaf WHERE kind=2 AND"
        " value=?1",
        thread);
}

void TouchThread(Database& index, std::int64_t thread, std::int64_t count)
{
    index.Run("UPDATE thread SET count=count+?2 WHERE id=?1", thread, count);
    std::string key;
    std::int64_t month = 0;
    std::int64_t size = 0;
    std::string subject;
    {
        Rows row =
            index.Query("SELECT sort, month, count, subject FROM thread WHERE id=?1", thread);
        if (!row.Next())
            return;
        key = row.Text(0);
        month = row.Int(1);
        size = row.Int(2);
        subject = row.Text(3);
    }
    if (size <= 0) {
        DropListing(index, PageKind::kThread, thread);
        RemoveFromListing(index, PageKind::kThreadMonth, month, key);
        index.Run("DELETE FROM thread WHERE id=?1", thread);
        return;
    }
    const std::string title = index
                                  .Text(
                                      "SELECT subject FROM posting WHERE thread=?1 ORDER BY sort"
                                      " LIMIT 1",
                                      thread)
                                  .value_or(subject);
    if (title != subject) {
        index.Run("UPDATE thread SET subject=?2 WHERE id=?1", thread, title);
        MarkThread(index, thread);
    }
    index.Run("UPDATE thread SET last=(SELECT MAX(sort) FROM posting WHERE thread=?1) WHERE id=?1",
              thread);
    MarkInListing(index, PageKind::kThreadMonth, month, key);
}

}  // namespace dl::archive
