// The copies of postings on their way into digest folders and archives.
//
// MakeFolderCopies has put them beside their places. CarryOut brings them to the disk, tells the
// archives, gives them their names, adds the topics and syncs the folders: all that before the
// commit that takes the messages off the queue. Doing it again changes nothing: a copy replaces
// itself, an archive knows what it was made of, and topics that do not fit the copies after a crash
// are made again. One part for each message, as of the work (platform/queue/work.h). Logs what it
// cannot do; main thread.
#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "lists/digest_folder.h"

namespace dl
{

struct FolderCopy {
    FolderCopy(std::string list_name, std::string folder_name, unsigned long message,
               std::optional<std::string> subject_text);

    std::string list;
    std::string folder;  // the list's, below the data path
    unsigned long id;    // of the message
    std::string name;    // "%08X.msg" of it
    std::optional<std::string> subject;
    std::string source;     // what an archive knows it by when it comes again
    std::string rewritten;  // the file that it is a copy of
    DigestFolder digest;
    bool in_digest = false;                   // a copy lies beside the digest's
    std::optional<unsigned long> archive_id;  // a copy lies beside the archive's; its name there

    [[nodiscard]] std::string ArchivePath() const;
    [[nodiscard]] std::string BesideDigest() const;
    [[nodiscard]] std::string BesideArchive() const;
};

class FolderFiling
{
 public:
    ~FolderFiling();
    FolderFiling() = default;
    FolderFiling(const FolderFiling&) = delete;
    FolderFiling& operator=(const FolderFiling&) = delete;

    void Add(FolderCopy copy) { parts_.back().push_back(std::move(copy)); }
    void EndPart() { parts_.emplace_back(); }
    void DropPart();
    // Of the first `parts` parts. False, and logged, when the machine cannot: to be tried again.
    [[nodiscard]] bool CarryOut(std::size_t parts);
    // They are committed.
    void Forget(std::size_t parts);

 private:
    using Part = std::vector<FolderCopy>;
    static void Discard(const Part& part);

    std::deque<Part> parts_ = std::deque<Part>(1);
};

// Has the topics of each folder compared with its copies again before they are next added to, as
// after the start of the process.
void ForgetCheckedTopics();

}  // namespace dl
