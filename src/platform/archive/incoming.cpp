#include "platform/archive/incoming_private.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/archive/trees.h"
#include "platform/clock/clock.h"
#include "platform/log/format.h"
#include "platform/log/log.h"

namespace dl::archive
{
namespace
{

std::string WhyOpenFileIsNone(int file)
{
    struct stat status {
    };
    if (::fstat(file, &status) != 0 || !S_ISREG(status.st_mode))
        return "it is no regular file";
    if (status.st_size == 0)
        return "it is empty";
    char byte = 0;
    if (::read(file, &byte, 1) < 0)
        return "it cannot be read: " + std::generic_category().message(errno);
    return "it holds no message, or one of too many parts";
}

}  // namespace

std::string WhyUnreadable(const std::string& path)
{
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0)
        return "it cannot be opened: " + std::generic_category().message(errno);
    std::string why = WhyOpenFileIsNone(file);
    ::close(file);
    return why;
}

void NoteShown(Database& index, const std::string& list, std::int64_t id, const std::string& cause)
{
    if (cause.empty()) {
        index.Run("DELETE FROM incoming WHERE id=?1 AND failed=2", id);
        return;
    }
    // One that was filed again waits to be read.
    const bool news =
        index
            .Int(
                "INSERT INTO incoming (id, stamp, failed, cause, failed_at, maker)"
                " VALUES (?1, 0, 2, ?2, ?3, ?4) ON CONFLICT (id) DO UPDATE SET cause=?2,"
                " failed_at=?3, maker=?4 WHERE failed=2 AND (cause<>?2 OR maker<>?4) RETURNING id",
                id, cause, static_cast<std::int64_t>(Now()), std::int64_t{kMaker})
            .has_value();
    if (news)
        LogMessage(1, "DL Manager",
                   FormatText("The archive of %s shows %s in part only: %s", list.c_str(),
                              PostingFileName(id).c_str(), cause.c_str())
                       .c_str());
}

void RetryFailed(Database& index, Retry which)
{
    // No maker has the number 0.
    const std::int64_t spared = which == Retry::kAll ? 0 : kMaker;
    Transaction transaction(index);
    index.Run(
        "INSERT OR IGNORE INTO dirty SELECT 1, id, 0 FROM incoming WHERE failed=2 AND"
        " maker<>?1 AND id IN (SELECT id FROM posting)",
        spared);
    index.Run("UPDATE incoming SET failed=0 WHERE failed=1 AND maker<>?1", spared);
    transaction.Commit();
}

std::vector<LeftOutPosting> ReadLeftOut(Database& index, const std::string& archive_path)
{
    constexpr const char* kOfFormat1 =
        "SELECT id, '', 0, failed FROM incoming WHERE failed<>0 ORDER BY id";
    constexpr const char* kNow =
        "SELECT id, cause, failed_at, failed FROM incoming WHERE failed<>0 ORDER BY id";
    std::vector<LeftOutPosting> all;
    const std::int64_t format = FormatOf(index);
    if (format == 0)
        return all;  // no tables yet
    Rows rows = index.Query(format == 1 ? kOfFormat1 : kNow);
    while (rows.Next()) {
        const std::int64_t id = rows.Int(0);
        all.push_back({static_cast<unsigned long>(id), archive_path + "/" + PostingFileName(id),
                       rows.Text(1), rows.Int(2), rows.Int(3) == 2});
    }
    return all;
}

}  // namespace dl::archive
