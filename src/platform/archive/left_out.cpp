#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/archive/left_out_private.h"
#include "platform/archive/trees.h"
#include "platform/clock/clock.h"

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

std::string WhyLeftOut(const std::string& path)
{
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0)
        return "it cannot be opened: " + std::generic_category().message(errno);
    std::string why = WhyOpenFileIsNone(file);
    ::close(file);
    return why;
}

void LeaveOut(Database& index, std::int64_t id, std::int64_t stamp, const std::string& cause)
{
    index.Run("UPDATE incoming SET failed=1, cause=?3, failed_at=?4 WHERE id=?1 AND stamp=?2", id,
              stamp, cause, static_cast<std::int64_t>(Now()));
}

std::vector<LeftOutPosting> ReadLeftOut(Database& index, const std::string& archive_path)
{
    constexpr const char* kOfFormat1 = "SELECT id, '', 0 FROM incoming WHERE failed=1 ORDER BY id";
    constexpr const char* kNow =
        "SELECT id, cause, failed_at FROM incoming WHERE failed=1 ORDER BY id";
    std::vector<LeftOutPosting> all;
    const std::int64_t format = FormatOf(index);
    if (format == 0)
        return all;  // no tables yet
    Rows rows = index.Query(format == 1 ? kOfFormat1 : kNow);
    while (rows.Next()) {
        const std::int64_t id = rows.Int(0);
        all.push_back({static_cast<unsigned long>(id), archive_path + "/" + PostingFileName(id),
                       rows.Text(1), rows.Int(2)});
    }
    return all;
}

}  // namespace dl::archive
