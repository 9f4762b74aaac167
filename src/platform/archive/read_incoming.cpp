// From a recorded posting's file to its row in the index.
#include <sys/stat.h>

#include <cerrno>
#include <new>
#include <optional>

#include "platform/archive/announce_private.h"
#include "platform/archive/failure_private.h"
#include "platform/archive/filing_private.h"
#include "platform/archive/incoming_private.h"
#include "platform/archive/trees.h"
#include "platform/clock/clock.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "platform/mime/read_posting.h"

namespace dl::archive
{
namespace
{

constexpr std::int64_t kReadAtOnce = 200;  // postings per transaction

struct Incoming {
    std::int64_t id = 0;
    std::int64_t stamp = 0;      // when it was recorded; tells whether it was since
    std::optional<Facts> facts;  // none: the file cannot be read
    std::string cause;           // then
};

std::optional<Facts> ReadFile(const std::string& path, std::int64_t id)
{
    const auto file = PostingFile::Read(path);
    if (!file)
        return std::nullopt;
    struct stat status {
    };
    const std::int64_t arrival = ::stat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
    return FactsOf(file->Get(), id, arrival, Now());
}

void ReadFacts(const std::string& path, Incoming* one)
{
    const FaultWatch watch;
    try {
        one->facts = ReadFile(path, one->id);
    } catch (const std::bad_alloc&) {
        Fail("read " + path, ENOMEM);
    } catch (const std::exception& problem) {
        one->cause = std::string("the program fails at it: ") + problem.what();
        return;
    }
    if (one->facts)
        return;
    watch.FailIfMachine("read " + path);
    one->cause = WhyUnreadable(path);
}

// Unless it was filed again since it was read.
void LeaveOut(Database& index, const std::string& list, const Incoming& one)
{
    index.Run(
        "UPDATE incoming SET failed=1, cause=?3, failed_at=?4, maker=?5 WHERE id=?1 AND stamp=?2",
        one.id, one.stamp, one.cause, static_cast<std::int64_t>(Now()), std::int64_t{kMaker});
    LogMessage(1, "DL Manager",
               FormatText("The archive of %s leaves out %s, which cannot be read as a message: %s",
                          list.c_str(), PostingFileName(one.id).c_str(), one.cause.c_str())
                   .c_str());
}

// A posting that was filed again since it was read is read again.
void File(Database& index, const std::string& list, Incoming* one)
{
    if (!one->facts) {
        LeaveOut(index, list, *one);
        return;
    }
    index.Run("SAVEPOINT one");
    try {
        FilePosting(index, *one->facts);
        index.Run("DELETE FROM incoming WHERE id=?1 AND stamp=?2", one->id, one->stamp);
    } catch (const RefusedContent& problem) {
        index.Run("ROLLBACK TO one");
        one->cause = problem.message;
        LeaveOut(index, list, *one);
    }
    index.Run("RELEASE one");
}

}  // namespace

void ReadIncoming(Database& index, const std::string& archive_path, const std::string& list)
{
    SettleAnnounced(index, archive_path);
    for (;;) {
        std::vector<Incoming> all;
        {
            Rows rows = index.Query(
                "SELECT id, stamp FROM incoming WHERE failed=0 AND announced<=?2 ORDER BY id"
                " LIMIT ?1",
                kReadAtOnce, static_cast<std::int64_t>(Now()) - kFileMayTake);
            while (rows.Next())
                all.push_back({rows.Int(0), rows.Int(1), std::nullopt, ""});
        }
        if (all.empty())
            return;
        // Reading may take long; a posting is filed meanwhile without waiting for it.
        for (Incoming& one : all)
            ReadFacts(archive_path + "/" + PostingFileName(one.id), &one);
        Transaction transaction(index);
        for (Incoming& one : all)
            File(index, list, &one);
        transaction.Commit();
    }
}

}  // namespace dl::archive
