#include "platform/queue/entry_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <memory>
#include <system_error>

#include "platform/clock/clock.h"
#include "platform/files/files.h"

namespace dl
{

namespace
{

// entries.lock: identifiers use the bytes below 2^32, readers those above 2^33, users of the folder
// the one between.
constexpr off_t kUsersByte = off_t{1} << 32;
constexpr off_t kReaderBase = off_t{1} << 33;
constexpr std::size_t kCounterBytes = 11;  // ten digits and a line end
constexpr int kMaxSkips = 1 << 20;

bool MakeFolder(const std::string& path, std::string* cause)
{
    struct stat state {
    };
    if (mkdir(path.c_str(), 0700) == 0)
        return true;
    if (errno == EEXIST && stat(path.c_str(), &state) == 0) {
        if (S_ISDIR(state.st_mode))
            return true;
        errno = ENOTDIR;
    }
    *cause = "the folder " + path + " cannot be made: " + PlainError(errno);
    return false;
}

std::uint32_t AfterId(std::uint32_t id)
{
    return id >= std::numeric_limits<std::uint32_t>::max() - 2 ? 1 : id + 1;
}

// A counter that is new, or was damaged by a power loss, begins at the time: beyond what was given
// before.
std::uint32_t ReadCounter(int fd)
{
    char text[kCounterBytes + 1];
    const ssize_t size = pread(fd, text, sizeof text, 0);
    std::uint32_t id = 0;
    if (size == kCounterBytes && text[kCounterBytes - 1] == '\n') {
        const char* end = text + kCounterBytes - 1;
        const auto read = std::from_chars(text, end, id);
        if (read.ec != std::errc() || read.ptr != end)
            id = 0;
    }
    if (id == 0)
        id = static_cast<std::uint32_t>(Now());
    return id == 0 || id >= std::numeric_limits<std::uint32_t>::max() - 1 ? 1 : id;
}

bool WriteCounter(int fd, std::uint32_t id)
{
    char text[kCounterBytes + 1];
    std::snprintf(text, sizeof text, "%010u\n", static_cast<unsigned>(id));
    // Cut as well: what a damaged one had more would make each later reading see a damaged one.
    return pwrite(fd, text, kCounterBytes, 0) == static_cast<ssize_t>(kCounterBytes) &&
           ftruncate(fd, kCounterBytes) == 0;
}

}  // namespace

std::string PlainError(int error)
{
    switch (error) {
        case ENOSPC:
        case EDQUOT:
            return "the disk is full";
        case EROFS:
            return "the disk is read-only";
        case EACCES:
        case EPERM:
            return "no permission";
        default:
            return std::generic_category().message(error);
    }
}

bool EntryFiles::Open(const std::string& folder, std::string* cause)
{
    folder_ = folder;
    std::error_code error;
    const std::filesystem::path parent = std::filesystem::path(folder).parent_path();
    if (!parent.empty() && !std::filesystem::exists(parent, error))
        std::filesystem::create_directories(parent, error);  // MakeFolder says why it cannot
    if (!MakeFolder(folder, cause) || !MakeFolder(folder + "/msg", cause))
        return false;
    GiveToOwner(folder + "/msg");
    if (!locks_.Open(folder + "/entries.lock")) {
        *cause = "the file entries.lock cannot be opened: " + PlainError(errno);
        return false;
    }
    if (!counter_.Open(folder + "/next.id")) {
        *cause = "the file next.id cannot be opened: " + PlainError(errno);
        return false;
    }
    GiveToOwner(folder + "/entries.lock");
    GiveToOwner(folder + "/next.id");
    return true;
}

void EntryFiles::GiveToOwner(const std::string& path) const
{
    struct stat owner {
    };
    if (geteuid() == 0 && stat(folder_.c_str(), &owner) == 0 && owner.st_uid != 0 &&
        lchown(path.c_str(), owner.st_uid, owner.st_gid) != 0)
        return;  // a file system without owners
}

void EntryFiles::TellNews() const
{
    (void)futimens(locks_.fd(), nullptr);  // who is not woken looks by itself a moment later
}

std::string EntryFiles::FileName(std::uint32_t id, const char* extension)
{
    char name[16];
    std::snprintf(name, sizeof name, "%08X", static_cast<unsigned>(id));
    return std::string(name) + extension;
}

std::string EntryFiles::Path(std::uint32_t id, const char* extension) const
{
    return folder_ + "/msg/" + FileName(id, extension);
}

EntryFiles::Tried EntryFiles::TryId(std::uint32_t id,
                                    const std::function<Known(std::uint32_t)>& known,
                                    std::string* cause)
{
    // Claimed before the file exists, or a sweep at this moment would take it for a dead writer's.
    if (HasClaim(id) || !Claim(id))
        return Tried::kInUse;
    const std::string path = Path(id, ".msg");
    Tried result = Tried::kInUse;
    switch (known(id)) {
        case Known::kFailed:
            result = Tried::kFailed;
            break;
        case Known::kYes:
            break;
        case Known::kNo: {
            const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
            if (fd >= 0) {
                close(fd);
                GiveToOwner(path);
                return Tried::kMade;
            }
            if (errno == EEXIST)
                break;
            *cause = "the file " + path + " cannot be made: " + PlainError(errno);
            result = Tried::kFailed;
        }
    }
    Release(id);
    return result;
}

std::optional<std::uint32_t> EntryFiles::Reserve(const std::function<Known(std::uint32_t)>& known,
                                                 std::string* cause)
{
    if (!counter_.Wait(0)) {
        *cause = "the file next.id cannot be locked: " + PlainError(errno);
        return std::nullopt;
    }
    std::uint32_t id = ReadCounter(counter_.fd());
    Tried tried = TryId(id, known, cause);
    for (int skips = 0; tried == Tried::kInUse && skips < kMaxSkips; ++skips) {
        id = AfterId(id);
        tried = TryId(id, known, cause);
    }
    if (tried == Tried::kInUse)
        *cause = "no free identifier was found";
    if (tried == Tried::kMade && !WriteCounter(counter_.fd(), AfterId(id))) {
        *cause = "the file next.id cannot be written: " + PlainError(errno);
        RemoveMessage(id);
        Release(id);
        tried = Tried::kFailed;
    }
    counter_.Unlock(0);
    return tried == Tried::kMade ? std::optional(id) : std::nullopt;
}

bool EntryFiles::GoOnBehind(std::uint32_t id, std::string* cause)
{
    if (!counter_.Wait(0)) {
        *cause = "the file next.id cannot be locked: " + PlainError(errno);
        return false;
    }
    constexpr std::uint32_t kHalf = 0x80000000;  // beyond it the counter has begun again meanwhile
    const bool before = id - ReadCounter(counter_.fd()) < kHalf;
    const bool done = !before || WriteCounter(counter_.fd(), AfterId(id));
    if (!done)
        *cause = "the file next.id cannot be written: " + PlainError(errno);
    counter_.Unlock(0);
    return done;
}

bool EntryFiles::Claim(std::uint32_t id)
{
    if (HasClaim(id))
        return true;
    if (!locks_.Try(id))
        return false;
    claims_.insert(id);
    return true;
}

void EntryFiles::Release(std::uint32_t id)
{
    if (claims_.erase(id) != 0)
        locks_.Unlock(id);
}

bool EntryFiles::Sync(std::uint32_t id, std::int64_t* bytes, std::string* cause) const
{
    return SyncMessage(id, bytes, cause) && SyncFolder(cause);
}

void EntryFiles::BeginSync(std::uint32_t id) const
{
    const int fd = open(Path(id, ".msg").c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0)
        return;  // SyncMessage says so
    (void)sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);
    close(fd);
}

bool EntryFiles::SyncFolder(std::string* cause) const
{
    if (SyncPath(folder_ + "/msg"))
        return true;
    *cause =
        "the folder " + folder_ + "/msg could not be written to the disk: " + PlainError(errno);
    return false;
}

bool EntryFiles::SyncMessage(std::uint32_t id, std::int64_t* bytes, std::string* cause) const
{
    const std::string path = Path(id, ".msg");
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        *cause = "its file " + path + " cannot be opened: " + PlainError(errno);
        return false;
    }
    struct stat state {
    };
    const bool is_file = fstat(fd, &state) == 0 && S_ISREG(state.st_mode);
    const bool synced = is_file && fsync(fd) == 0;
    const int error = errno;
    close(fd);
    *bytes = state.st_size;
    if (!is_file)
        *cause = "its file " + path + " is no file";
    else if (!synced)
        *cause = "its file " + path + " could not be written to the disk: " + PlainError(error);
    return cause->empty();
}

bool EntryFiles::HasMessage(std::uint32_t id) const
{
    // Only a file that is surely gone counts as missing: any other fault is not the message's.
    return access(Path(id, ".msg").c_str(), F_OK) == 0 || errno != ENOENT;
}

void EntryFiles::RemoveMessage(std::uint32_t id) const
{
    unlink(Path(id, ".msg").c_str());
}

void EntryFiles::RemoveNamed(const std::string& name) const
{
    unlink((folder_ + "/msg/" + name).c_str());
}

std::optional<std::vector<EntryFiles::Name>> EntryFiles::Names(std::size_t limit) const
{
    std::vector<Name> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir((folder_ + "/msg").c_str()), closedir);
    if (!folder)
        return std::nullopt;
    while ((limit == 0 || names.size() < limit)) {
        const dirent* item = readdir(folder.get());
        if (!item)
            break;
        const std::string name = item->d_name;
        std::uint32_t id = 0;
        const bool upper = name.find_first_of("abcdef") >= 8;
        if (name.size() < 10 || name[8] != '.' || !upper)
            continue;
        const auto read = std::from_chars(name.data(), name.data() + 8, id, 16);
        if (read.ec == std::errc() && read.ptr == name.data() + 8)
            names.push_back({id, name});
    }
    return names;
}

bool EntryFiles::ClaimReader(std::int64_t reader)
{
    return locks_.Try(kReaderBase + reader);
}

void EntryFiles::ReleaseReader(std::int64_t reader)
{
    locks_.Unlock(kReaderBase + reader);
}

bool EntryFiles::ReaderLives(std::int64_t reader) const
{
    return locks_.IsLocked(kReaderBase + reader);
}

bool EntryFiles::Enter()
{
    const bool alone = locks_.Try(kUsersByte);
    // Shared from here on; who asks in between waits for a moment only.
    (void)locks_.WaitShared(kUsersByte);
    return alone;
}

}  // namespace dl
