#include "dispatch/folder_copies.h"

#include "lists/data_folder.h"
#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/archive/archive.h"
#include "platform/config/config.h"
#include "platform/config/data_path.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "platform/log/log.h"

namespace dl
{
namespace
{

constexpr unsigned long kCopyBlock = 4096;
constexpr char kModule[] = "DL Manager";

// Below the working directory when no data path is configured; the archive's base is another
// matter.
std::string DigestFolderPath(const std::string& folder)
{
    const std::string base = GetPrivateProfileString("DLManager", "DBPath", "", 4095, kMainConfig);
    if (base.empty())
        return "./" + folder + "/digest";
    return base + (base.back() == '/' ? "" : "/") + folder + "/digest";
}

std::string FileName(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

// False when the copy failed.
bool Copy(const std::string& from, const std::string& to)
{
    try {
        CFileUtil(kModule).Copy(from, to, kCopyBlock);
    } catch (const CFileUtilException&) {
        return false;
    }
    return true;
}

void FileInArchive(const std::string& list, const std::string& digest_copy,
                   const std::string& entry_file, const std::string& name)
{
    const std::string folder = DataFolderName(list);
    const std::string file = DataPath() + "/" + folder + "/" + "archive" + "/" + entry_file;
    if (!Copy(digest_copy, file))
        DlLog(1, "Unable to copy message <%s> to the archive folder of %s mailing list",
              name.c_str(), list.c_str());
    try {
        const ArchiveLock archive(SharedArchive());
        archive->SetList(folder);
        archive->GetArchivePath();
        archive->AddArchive(archive->Path(), archive->GetId(entry_file));
    } catch (const CDlArchiveException& problem) {
        DlLog(1, "%s", problem.message);
    }
}

// The number of lines in a file, 0 when there is none; -1 when it cannot be opened.
int CountLines(const std::string& path)
{
    LineReader in(path);
    if (!in.IsOpen())
        return FileSize(path) < 0 ? 0 : -1;
    int lines = 0;
    while (const auto line = in.Next())
        lines += line->back() == '\n' ? 1 : 0;
    return lines;
}

// One line in any case: of a subject with a NUL byte what stands before it, and a line end for one
// that the message's end has cut off.
std::string TopicOf(const std::optional<std::string>& subject)
{
    std::string topic = subject ? subject->c_str() : " No subject\r\n";
    if (topic.empty() || topic.back() != '\n')
        topic += "\r\n";
    return topic;
}

void AddTopic(const std::string& path, const std::optional<std::string>& subject)
{
    const int lines = CountLines(path);
    // A folder that is missing has been told of by the copy; the line is only for the digest's
    // table of contents.
    if (lines < 0)
        return;
    FileWriter out(path, "ab");
    (void)out.Print("%4d. %s", lines + 1, TopicOf(subject).c_str());  // Close says what failed
    if (out.IsOpen() && !out.Close())
        DlLog(1, "Unable to write file: %s", path.c_str());
}

}  // namespace

void MakeFolderCopies(const std::string& list, unsigned long id, const std::string& rewritten,
                      const std::optional<std::string>& subject)
{
    if (!IsSafeFolderName(list))
        return;  // the loader has said that such a list has neither digest nor archive
    const std::string folder = DigestFolderPath(DataFolderName(list));
    const std::string name = FormatText("%08X.msg", static_cast<unsigned>(id));
    const std::string digest_copy = folder + "/" + name;
    (void)Files().Remove(digest_copy.c_str());  // an identifier that was used before
    if (!Copy(rewritten, digest_copy))
        DlLog(1, "Unable to copy message <%s> to the digest folder of %s mailing list",
              name.c_str(), list.c_str());
    if (ListCache().GetArchiveFlag(list) == 1)
        FileInArchive(list, digest_copy, FileName(rewritten), name);
    AddTopic(folder + "/subject.txt", subject);
}

}  // namespace dl
