#include "dispatch/folder_filing.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

#include "platform/archive/archive.h"
#include "platform/config/data_path.h"
#include "platform/files/files.h"
#include "platform/files/machine_fault.h"
#include "platform/log/format.h"
#include "platform/log/log.h"

namespace dl
{
namespace
{

// Digest folders whose topics are known to fit their copies.
std::set<std::string>& CheckedTopics()
{
    static std::set<std::string> checked;
    return checked;
}

// The cause, noted for whoever asks for a fault of the machine.
const char* Cause()
{
    const int error = errno;
    NoteMachineFault(error);
    return std::strerror(error);
}

bool Sync(const std::string& path)
{
    if (SyncPath(path))
        return true;
    DlLog(1, "Unable to sync %s: %s", path.c_str(), Cause());
    return false;
}

// All copies of some parts, with what they have in common done once.
class Filer
{
 public:
    explicit Filer(std::vector<const FolderCopy*> copies) : copies_(std::move(copies)) {}

    bool Run()
    {
        for (const FolderCopy* copy : copies_)
            if (!SyncCopy(*copy))
                return false;
        if (!AnnounceToArchives() || !Place())
            return false;
        for (auto& [path, digest] : digests_)
            if (!WriteTopics(path, &digest))
                return false;
        for (const std::string& folder : folders_)
            if (!Sync(folder))
                return false;
        return true;
    }

 private:
    struct Digest {
        std::vector<std::optional<std::string>> subjects;  // of copies that were not there before
        bool fits = true;  // the topics have a line for each copy, but for these
        const DigestFolder* folder = nullptr;
    };

    static bool IsSameFile(const std::string& a, const std::string& b)
    {
        struct stat one {
        };
        struct stat other {
        };
        return stat(a.c_str(), &one) == 0 && stat(b.c_str(), &other) == 0 &&
               one.st_ino == other.st_ino && one.st_dev == other.st_dev;
    }

    // The entry that is being published is on disk already. A copy that is gone has its name.
    static bool SyncCopy(const FolderCopy& copy)
    {
        const std::string digest = copy.BesideDigest();
        const std::string archive = copy.BesideArchive();
        if (copy.in_digest && FileSize(digest) >= 0 && !IsSameFile(digest, copy.rewritten) &&
            !Sync(digest))
            return false;
        return !copy.archive_id || FileSize(archive) < 0 || IsSameFile(archive, digest) ||
               Sync(archive);
    }

    // An archive that knows of a copy from an earlier attempt gives it the name of then.
    bool AnnounceToArchives()
    {
        std::map<std::string, std::vector<const FolderCopy*>> archives;  // by path
        for (const FolderCopy* copy : copies_)
            if (copy->archive_id)
                archives[copy->ArchivePath()].push_back(copy);
        for (const auto& [path, copies] : archives) {
            std::vector<ArchiveFiling> filings;
            for (const FolderCopy* copy : copies)
                filings.push_back({copy->source, *copy->archive_id});
            if (!Announce(path, &filings))
                return false;
            for (std::size_t i = 0; i < copies.size(); ++i)
                filings_[copies[i]] = filings[i];
        }
        return true;
    }

    // An index that cannot take them keeps no posting from its place: a rebuild brings them in.
    static bool Announce(const std::string& path, std::vector<ArchiveFiling>* filings)
    {
        try {
            CDlArchive::AnnounceArchive(path, filings);
        } catch (const CDlArchiveException& problem) {
            DlLog(1, "%s", problem.message);
            return problem.fault != ArchiveFault::kMachine;
        }
        return true;
    }

    bool Place()
    {
        for (const FolderCopy* copy : copies_) {
            if (copy->archive_id && !PlaceInArchive(*copy))
                return false;
            if (copy->in_digest && !PlaceInDigest(*copy))
                return false;
        }
        return true;
    }

    bool PlaceInArchive(const FolderCopy& copy)
    {
        const std::string folder = copy.ArchivePath();
        const unsigned long id = filings_[&copy].id;
        const std::string file = folder + FormatText("/%08lX.msg", id);
        const bool was_there = FileSize(file) >= 0;
        if (!Rename(copy.BesideArchive(), file))
            return false;
        folders_.insert(folder);
        if (!was_there)
            return true;  // the announcement is enough
        try {
            CDlArchive::AddArchive(folder, id);  // to be read again
        } catch (const CDlArchiveException& problem) {
            DlLog(1, "%s", problem.message);
            return problem.fault != ArchiveFault::kMachine;
        }
        return true;
    }

    bool PlaceInDigest(const FolderCopy& copy)
    {
        Digest& digest = digests_[copy.digest.Path()];
        if (!digest.folder) {
            digest.folder = &copy.digest;
            digest.fits = CheckTopics(copy.digest);
        }
        const std::string file = copy.digest.PathOf(copy.name);
        const bool was_there = FileSize(file) >= 0;
        if (!Rename(copy.BesideDigest(), file))
            return false;
        folders_.insert(copy.digest.Path());
        digest.fits = digest.fits && !was_there;  // its line tells of what was there
        digest.subjects.push_back(copy.subject);
        return true;
    }

    static bool CheckTopics(const DigestFolder& folder)
    {
        return CheckedTopics().contains(folder.Path()) ||
               CountTopics(folder) == static_cast<int>(folder.Postings().size());
    }

    static bool WriteTopics(const std::string& path, Digest* digest)
    {
        CheckedTopics().erase(path);
        const bool done = digest->fits ? AddTopics(*digest->folder, digest->subjects)
                                       : RebuildTopics(*digest->folder);
        if (done) {
            CheckedTopics().insert(path);
            return true;
        }
        const int error = errno;
        DlLog(1, "Unable to write file: %s: %s", digest->folder->Topics().c_str(), Cause());
        return !IsMachineFault(error);
    }

    // What has its name already was placed by an earlier attempt.
    static bool Rename(const std::string& from, const std::string& to)
    {
        if (Files().Rename(from.c_str(), to.c_str()) || (errno == ENOENT && FileSize(to) >= 0))
            return true;
        DlLog(1, "Unable to give its name to %s: %s", to.c_str(), Cause());
        return false;
    }

    std::vector<const FolderCopy*> copies_;
    std::map<const FolderCopy*, ArchiveFiling> filings_;
    std::map<std::string, Digest> digests_;  // by path
    std::set<std::string> folders_;
};

}  // namespace

FolderCopy::FolderCopy(std::string list_name, std::string folder_name, unsigned long message,
                       std::optional<std::string> subject_text)
    : list(std::move(list_name)),
      folder(std::move(folder_name)),
      id(message),
      name(PostingName(message)),
      subject(std::move(subject_text)),
      digest(folder)
{
}

std::string FolderCopy::ArchivePath() const
{
    return DataPath() + "/" + folder + "/archive";
}

std::string FolderCopy::BesideDigest() const
{
    return digest.PathOf(FormatText("%08lX.new", id));
}

std::string FolderCopy::BesideArchive() const
{
    return ArchivePath() + FormatText("/%08lX.new", id);
}

FolderFiling::~FolderFiling()
{
    for (const Part& part : parts_)
        Discard(part);
}

void FolderFiling::Discard(const Part& part)
{
    for (const FolderCopy& copy : part) {
        (void)Files().Remove(copy.BesideDigest().c_str());  // there may be none
        (void)Files().Remove(copy.BesideArchive().c_str());
    }
}

void FolderFiling::DropPart()
{
    Discard(parts_.back());
    parts_.back().clear();
}

bool FolderFiling::CarryOut(std::size_t parts)
{
    std::vector<const FolderCopy*> copies;
    for (std::size_t i = 0; i < parts; ++i)
        for (const FolderCopy& copy : parts_[i])
            copies.push_back(&copy);
    return Filer(std::move(copies)).Run();
}

void FolderFiling::Forget(std::size_t parts)
{
    parts_.erase(parts_.begin(), parts_.begin() + static_cast<std::ptrdiff_t>(parts));
}

void ForgetCheckedTopics()
{
    CheckedTopics().clear();
}

}  // namespace dl
