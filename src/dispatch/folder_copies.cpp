#include "dispatch/folder_copies.h"

#include "lists/data_folder.h"
#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/archive/archive.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "platform/queue/queue.h"

namespace dl
{
namespace
{

constexpr unsigned long kCopyBlock = 4096;
constexpr char kModule[] = "DL Manager";

// A second name of the file where that can be had; its bytes never change any more. Else a copy.
bool Copy(const std::string& from, const std::string& to)
{
    (void)Files().Remove(to.c_str());  // of an earlier attempt
    if (Files().Link(from.c_str(), to.c_str()))
        return true;
    try {
        CFileUtil(kModule).Copy(from, to, kCopyBlock);
    } catch (const CFileUtilException&) {
        return false;
    }
    return true;
}

// Names the message to an archive: identifiers come again, but not in the same second.
std::string SourceOf(unsigned long message)
{
    std::vector<QueueItem> items;
    if (!FindMQ(message, &items) || items.empty())
        return {};  // the queue has said why; the commit that follows will fail as well
    return FormatText("%08lX.%lld", message, static_cast<long long>(items.front().closed));
}

// The identifier under which the archive files the entry; none, and logged, when it cannot.
std::optional<unsigned long> ArchiveId(const std::string& folder, const std::string& entry_file,
                                       bool copied)
{
    try {
        const ArchiveLock archive(SharedArchive());
        archive->SetList(folder);
        archive->GetArchivePath();
        const unsigned long id = archive->GetId(entry_file);
        if (copied)
            return id;
        archive->AddArchive(archive->Path(), id);  // throws: there is no such file
    } catch (const CDlArchiveException& problem) {
        DlLog(1, "%s", problem.message);
    }
    return std::nullopt;
}

}  // namespace

void MakeFolderCopies(const std::string& list, unsigned long id, const std::string& rewritten,
                      const std::optional<std::string>& subject, FolderFiling* filing)
{
    if (!IsSafeFolderName(list))
        return;  // the loader has said that such a list has neither digest nor archive
    FolderCopy copy(list, DataFolderName(list), id, subject);
    copy.rewritten = rewritten;
    copy.in_digest = Copy(rewritten, copy.BesideDigest());
    if (!copy.in_digest)
        DlLog(1, "Unable to copy message <%s> to the digest folder of %s mailing list",
              copy.name.c_str(), list.c_str());
    if (ListCache().GetArchiveFlag(list) == 1) {
        const bool copied = copy.in_digest && Copy(copy.BesideDigest(), copy.BesideArchive());
        if (!copied)
            DlLog(1, "Unable to copy message <%s> to the archive folder of %s mailing list",
                  copy.name.c_str(), list.c_str());
        copy.source = SourceOf(id);
        copy.archive_id =
            ArchiveId(copy.folder, rewritten.substr(rewritten.rfind('/') + 1), copied);
    }
    filing->Add(std::move(copy));
}

}  // namespace dl
