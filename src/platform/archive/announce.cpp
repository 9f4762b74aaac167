#include "platform/archive/announce_private.h"

#include <sys/stat.h>

#include <cerrno>

#include "platform/archive/failure_private.h"
#include "platform/archive/trees.h"
#include "platform/clock/clock.h"

namespace dl::archive
{
namespace
{

bool IsThere(const std::string& path)
{
    struct stat status {
    };
    if (::stat(path.c_str(), &status) == 0)
        return true;
    if (errno != ENOENT)
        Fail("look for " + path, errno);
    return false;
}

// True when the source was recorded before.
bool FindSource(Database& index, ArchiveFiling* filing, std::int64_t now)
{
    const auto id = index.Int("SELECT id FROM source WHERE name=?1", filing->source);
    if (!id)
        return false;
    filing->id = static_cast<unsigned long>(*id);
    filing->known = true;
    // Its file may come only now; it must not be called unreadable or be forgotten meanwhile.
    index.Run(
        "UPDATE incoming SET announced=?2, failed=0 WHERE id=?1 AND announced<>0 AND announced<>?2",
        *id, now);
    return true;
}

}  // namespace

std::vector<ArchiveFiling> Announce(Database& index, std::vector<ArchiveFiling> filings)
{
    const std::int64_t now = Now();
    Transaction transaction(index);
    for (ArchiveFiling& filing : filings) {
        filing.known = false;
        if (!filing.source.empty() && FindSource(index, &filing, now))
            continue;
        const auto id = static_cast<std::int64_t>(filing.id);
        ForgetSource(index, id);  // of a posting that this one replaces
        if (!filing.source.empty())
            index.Run("INSERT INTO source (id, name) VALUES (?1, ?2)", id, filing.source);
        index.Run("INSERT OR REPLACE INTO incoming (id, stamp, announced) VALUES (?1, ?2, ?3)", id,
                  NowMicroseconds(), now);
    }
    transaction.Commit();
    return filings;
}

void SettleAnnounced(Database& index, const std::string& archive_path)
{
    std::vector<std::int64_t> ids;
    {
        Rows rows = index.Query("SELECT id FROM incoming WHERE announced<>0");
        while (rows.Next())
            ids.push_back(rows.Int(0));
    }
    if (ids.empty())
        return;
    Transaction transaction(index);
    for (const std::int64_t id : ids) {
        if (IsThere(archive_path + "/" + PostingFileName(id)))
            index.Run("UPDATE incoming SET announced=0, failed=0 WHERE id=?1", id);
        else if (index.Int("DELETE FROM incoming WHERE id=?1 AND announced<=?2 RETURNING id", id,
                           static_cast<std::int64_t>(Now()) - kForgottenAfter))
            ForgetSource(index, id);
    }
    transaction.Commit();
}

void ForgetSource(Database& index, std::int64_t id)
{
    index.Run("DELETE FROM source WHERE id=?1", id);
}

}  // namespace dl::archive
