// The archive library: what a list's archive holds, who may read it, and the pages it is read on.
//
// Below the archive folder of a list (<DbPath>/<list>/archive) lie the posting files "%08X.msg",
// the index "index.db", "htpasswd", and the folder "html" with the pages, which is all that a web
// server has to see. A posting that AddArchive or AnnounceArchive has recorded is shown from the
// next GenerateIndexPages on.
//
// Locking: one CDlArchive serves the whole process. The list and the path that it is set to belong
// to whoever holds an ArchiveLock, so the two calls that set them, and the reading of the path, are
// made under one lock. The static functions touch nothing of the object: call them with or, when
// they take long, better without the lock; they may run in any thread and process at the same time.
// Filing never waits for the writing of pages. GenerateIndexPages, RemoveArchive and RebuildArchive
// of one list wait for each other.
//
// Failures are thrown as CDlArchiveException. What a failure, or a kill, leaves undone is done by
// the next GenerateIndexPages; pages are whole at every moment.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace dl
{

enum class ArchiveFault {
    kOther,
    kDamaged,  // the index is no database any more, or its content contradicts itself
    kNewer,    // the index was written by a newer version of this program
    // No room, no descriptors, no memory, a disk that fails or must not be written; noted
    // (files/machine_fault.h).
    kMachine
};

struct CDlArchiveException {
    explicit CDlArchiveException(const std::string& text,
                                 ArchiveFault fault = ArchiveFault::kOther);
    char message[512];  // one line for the log
    ArchiveFault fault;
};

// A posting that is about to be filed; `source` names the message that it was made from, empty: it
// is not remembered.
struct ArchiveFiling {
    std::string source;
    unsigned long id = 0;
    bool known = false;
};

// What the pages say of the list besides its postings; each may be empty.
struct ArchiveDescription {
    std::string title;        // empty: the list's name before the '@'
    std::string description;  // one line
    std::string url;          // where the pages are served, for the feed
};

// A posting that is recorded and not on the pages, because it could not be read, or there in part
// only.
struct LeftOutPosting {
    unsigned long id = 0;
    std::string file;        // its path
    std::string cause;       // empty, and 0 in `since`, when an older version left it out
    std::int64_t since = 0;  // seconds since 1970 UTC
    bool in_part = false;    // it has a page, which does not show all of it
};

class CDlArchive
{
 public:
    void SetList(const std::string& list) { list_ = list; }
    // Finds out the archive path of the current list. Throws when the list's name cannot be the
    // name of a folder.
    void GetArchivePath();
    [[nodiscard]] const std::string& Path() const { return path_; }
    // Puts "user:hash" into the archive's "htpasswd": replaces the user's line or appends one.
    // Throws when the line is none of that form or the file cannot be written; it is then as it
    // was.
    void UpdateRemoteFile(const std::string& line);

    // The number of a posting's file name, "0001A2B3.msg", with or without a folder before it.
    // Throws for any other name.
    [[nodiscard]] static unsigned long GetId(const std::string& file_name);
    // Records the posting whose file is <archive_path>/<%08X>.msg, durably. A posting recorded
    // under the same id before is replaced. Throws when the file is not there or the index cannot
    // be written. Quick: the file is not read.
    static void AddArchive(const std::string& archive_path, unsigned long id);
    // Records the postings, durably and in one commit, before their files have their final names,
    // so that filing a message again after a crash files nothing twice. A posting whose file is not
    // there is not shown; it counts as unreadable after an hour and is forgotten after a day. For a
    // source that was recorded before, `id` becomes the identifier under which it was recorded and
    // `known` true; nothing else changes, except that a file that is not there yet gets another
    // hour and day. What a posting was made from is remembered as long as the posting:
    // RemoveArchive forgets it, and so does a rebuild over a damaged index or after the file has
    // gone. Throws when the index cannot be written; then nothing is recorded and `filings` is as
    // it was.
    static void AnnounceArchive(const std::string& archive_path,
                                std::vector<ArchiveFiling>* filings);
    // Brings the pages of `list` up to date: reads what has been recorded and writes the pages that
    // show it, no others. A list without archive folder has no pages, which is no failure. A
    // posting that cannot be read is skipped, one whose parts cannot all be read is shown without
    // those, with a level 1 line; both are tried again by another version of the program. Faults of
    // the machine are thrown and concern no posting. Minutes for a first run over very many
    // postings.
    static void GenerateIndexPages(const std::string& list);
    // The postings that are left out or shown in part, by id; none when there is no archive. Only
    // looks: an index of an older format stays as it is.
    [[nodiscard]] static std::vector<LeftOutPosting> LeftOut(const std::string& list);
    // Has them tried once more by the next GenerateIndexPages.
    static void RetryLeftOut(const std::string& list);

    // Takes a posting out for good: file, index, attachments, and all pages that showed it. Throws
    // when the archive has none of that id.
    static void RemoveArchive(const std::string& list, unsigned long id);
    // Makes index and pages anew from the posting files; also over an index that is damaged. Pages
    // keep their addresses, and the old ones are there until all new ones are.
    static void RebuildArchive(const std::string& list);
    // Sets what the pages say of the list; they are written by the next GenerateIndexPages.
    static void DescribeArchive(const std::string& list, const ArchiveDescription& description);
    // The copies of the list's index that upgrades and rebuilds have left beside it, their paths.
    [[nodiscard]] static std::vector<std::string> IndexCopies(const std::string& list);
    // The archive folder of `list`. Throws as GetArchivePath does.
    [[nodiscard]] static std::string PathOf(const std::string& list);

 private:
    friend class ArchiveLock;
    std::string list_;
    std::string path_;
    std::mutex mutex_;
};

// Holds the archive object for one use.
class ArchiveLock
{
 public:
    explicit ArchiveLock(CDlArchive& archive) : archive_(archive), guard_(archive.mutex_) {}
    CDlArchive* operator->() const { return &archive_; }

 private:
    CDlArchive& archive_;
    std::lock_guard<std::mutex> guard_;
};

// The process's one archive object.
[[nodiscard]] CDlArchive& SharedArchive();

}  // namespace dl
