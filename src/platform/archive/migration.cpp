// Bringing an index of an older format up to date: a copy first, then all steps in one transaction.
//
//   1  postings, pages, and what came in
//   2  why a posting is left out, and since when
//   3  which version of the reader left it out; what a posting was made from

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>

#include "platform/archive/failure_private.h"
#include "platform/archive/index_private.h"
#include "platform/files/files.h"
#include "platform/files/folder_lock.h"
#include "platform/log/format.h"
#include "platform/log/log.h"

namespace dl::archive
{
namespace
{

[[noreturn]] void NoCopy(const std::string& backup, int error)
{
    FailWith("no copy of the index can be written to " + backup, error);
}

// An empty file that may be read by those who may read the index.
void MakeLike(const std::string& model, const std::string& path)
{
    struct stat status {
    };
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file < 0)
        NoCopy(path, errno);
    const bool like =
        ::stat(model.c_str(), &status) == 0 && ::fchmod(file, status.st_mode & 0777) == 0;
    const int error = errno;
    ::close(file);
    if (!like)
        NoCopy(path, error);
}

// Whole or not at all: under another name until it is on disk. What a crash has left under that
// name goes.
void Copy(Database& index, const std::string& path, const std::string& backup)
{
    const std::string part = backup + ".part";
    (void)Files().Remove(part.c_str());
    try {
        MakeLike(path, part);
        index.CopyTo(part);
        if (!SyncPath(part) || !Files().Rename(part.c_str(), backup.c_str()) ||
            !SyncPath(path.substr(0, path.rfind('/'))))
            NoCopy(backup, errno);
    } catch (const CDlArchiveException&) {
        (void)Files().Remove(part.c_str());  // the failure that is told came before
        throw;
    }
}

// From each format to the next.
constexpr const char* kSteps[] = {
    "ALTER TABLE incoming ADD COLUMN cause TEXT NOT NULL DEFAULT '';"
    "ALTER TABLE incoming ADD COLUMN failed_at INTEGER NOT NULL DEFAULT 0",

    "ALTER TABLE incoming ADD COLUMN maker INTEGER NOT NULL DEFAULT 0;"
    "ALTER TABLE incoming ADD COLUMN announced INTEGER NOT NULL DEFAULT 0;"
    "CREATE TABLE source (id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE)"};
static_assert(std::size(kSteps) == kFormatVersion - 1);

void Migrate(Database& index, std::int64_t format)
{
    Transaction transaction(index);
    for (std::int64_t from = format; from < kFormatVersion; ++from)
        index.Script(kSteps[from - 1]);
    index.Script(("PRAGMA user_version=" + std::to_string(kFormatVersion)).c_str());
    transaction.Commit();
}

}  // namespace

void BringUpToDate(Database& index, const std::string& archive_path)
{
    const FolderLock lock(archive_path);
    if (!lock.Held())
        Fail("lock the folder " + archive_path, errno);
    const std::int64_t format = FormatOf(index);
    if (format == kFormatVersion)
        return;  // another program was first
    const std::string path = archive_path + "/index.db";
    const std::string backup = path + ".format-" + std::to_string(format);
    Copy(index, path, backup);
    Migrate(index, format);
    LogMessage(5, "DL Manager",
               FormatText("The index %s was brought from format %lld to %lld, the old one is kept "
                          "as %s",
                          path.c_str(), static_cast<long long>(format),
                          static_cast<long long>(kFormatVersion), backup.c_str())
                   .c_str());
}

}  // namespace dl::archive
