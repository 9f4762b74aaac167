#include "platform/archive/archive.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "platform/address/address.h"
#include "platform/archive/announce_private.h"
#include "platform/archive/failure_private.h"
#include "platform/archive/generate.h"
#include "platform/archive/incoming_private.h"
#include "platform/archive/index_private.h"
#include "platform/archive/trees.h"
#include "platform/clock/clock.h"
#include "platform/config/data_path.h"
#include "platform/files/files.h"
#include "platform/log/format.h"

namespace dl
{
namespace
{

constexpr mode_t kPasswordMode = 0640;
constexpr unsigned long kMaxId = 0xFFFFFFFF;

std::string UserOf(std::string_view line)
{
    return std::string(line.substr(0, line.find(':')));
}

bool IsFolder(const std::string& path)
{
    struct stat status {
    };
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

CDlArchive& SharedArchive()
{
    static CDlArchive archive;
    return archive;
}

CDlArchiveException::CDlArchiveException(const std::string& text, ArchiveFault what) : fault(what)
{
    std::snprintf(message, sizeof message, "%s", text.c_str());
}

void CDlArchive::GetArchivePath()
{
    path_ = PathOf(list_);
}

std::string CDlArchive::PathOf(const std::string& list)
{
    if (!IsSafeFolderName(list))
        throw CDlArchiveException("no archive for the list name " + list);
    return DataPath() + "/" + list + "/archive";
}

unsigned long CDlArchive::GetId(const std::string& file_name)
{
    const auto id = archive::IdOfFile(file_name.substr(file_name.rfind('/') + 1));
    if (!id)
        throw CDlArchiveException("no file name of an archived message: " + file_name);
    return static_cast<unsigned long>(*id);
}

void CDlArchive::AddArchive(const std::string& archive_path, unsigned long id)
{
    const std::string file = archive_path + FormatText("/%08lX.msg", id);
    if (id > kMaxId || FileSize(file) < 0)
        throw CDlArchiveException("there is no message " + file + " to be archived");
    const auto index = archive::OpenIndex(archive_path);
    index->KeepLog();
    index->Run("INSERT OR REPLACE INTO incoming (id, stamp) VALUES (?1, ?2)",
               static_cast<std::int64_t>(id), NowMicroseconds());
}

void CDlArchive::AnnounceArchive(const std::string& archive_path,
                                 std::vector<ArchiveFiling>* filings)
{
    for (const ArchiveFiling& filing : *filings)
        if (filing.id > kMaxId)
            throw CDlArchiveException(FormatText("no message can be archived as %lX", filing.id));
    const auto index = archive::OpenIndex(archive_path);
    index->KeepLog();
    *filings = archive::Announce(*index, *filings);
}

void CDlArchive::GenerateIndexPages(const std::string& list)
{
    const std::string path = PathOf(list);
    if (IsFolder(path))
        archive::Generate(path, list);
}

std::vector<LeftOutPosting> CDlArchive::LeftOut(const std::string& list)
{
    const std::string path = PathOf(list);
    const auto index = archive::OpenIndexToRead(path);
    return index ? archive::ReadLeftOut(*index, path) : std::vector<LeftOutPosting>();
}

void CDlArchive::RetryLeftOut(const std::string& list)
{
    const std::string path = PathOf(list);
    if (IsFolder(path))
        archive::RetryFailed(*archive::OpenIndex(path), archive::Retry::kAll);
}

void CDlArchive::RemoveArchive(const std::string& list, unsigned long id)
{
    const std::string path = PathOf(list);
    if (id > kMaxId || !IsFolder(path) ||
        !archive::Remove(path, list, static_cast<std::int64_t>(id)))
        throw CDlArchiveException(
            FormatText("the archive of %s has no message %08lX", list.c_str(), id));
}

void CDlArchive::RebuildArchive(const std::string& list)
{
    const std::string path = PathOf(list);
    if (!IsFolder(path))
        throw CDlArchiveException("there is no archive folder " + path);
    archive::Rebuild(path, list);
}

void CDlArchive::DescribeArchive(const std::string& list, const ArchiveDescription& description)
{
    const auto index = archive::OpenIndex(PathOf(list));
    archive::Transaction transaction(*index);
    archive::SetMeta(*index, "title", description.title);
    archive::SetMeta(*index, "description", description.description);
    const std::string& url = description.url;
    archive::SetMeta(*index, "url", url.empty() || url.back() == '/' ? url : url + "/");
    transaction.Commit();
}

std::vector<std::string> CDlArchive::IndexCopies(const std::string& list)
{
    std::vector<std::string> copies;
    std::error_code error;
    for (std::filesystem::directory_iterator at(PathOf(list), error), end; !error && at != end;
         at.increment(error)) {
        const std::string name = at->path().filename().string();
        if (name.starts_with("index.db.format-") || name.starts_with("index.db.damaged"))
            copies.push_back(at->path().string());
    }
    std::sort(copies.begin(), copies.end());
    return copies;
}

void CDlArchive::UpdateRemoteFile(const std::string& line)
{
    const std::string entry = line.substr(0, line.find_last_not_of("\r\n") + 1);
    const std::string user = UserOf(entry);
    if (user.empty() || user.size() == entry.size() ||
        entry.find_first_of(std::string("\r\n\0", 3)) != std::string::npos)
        throw CDlArchiveException("no line of a password file for list " + list_);
    const std::string file = path_ + "/htpasswd";
    std::string text;
    bool replaced = false;
    LineReader in(file);
    if (!in.IsOpen() && errno != ENOENT)
        archive::Fail("read " + file, errno);
    while (const auto old = in.Next()) {
        if (EqualNoCase(UserOf(*old), user)) {
            text += replaced ? "" : entry + "\n";
            replaced = true;
        } else {
            text += *old;
        }
    }
    if (!text.empty() && text.back() != '\n')
        text += '\n';
    if (!replaced)
        text += entry + "\n";
    if (in.Failed())
        archive::Fail("read " + file, errno);
    if (!ReplaceFile(file, text, kPasswordMode))
        archive::Fail("write " + file, errno);
}

}  // namespace dl
