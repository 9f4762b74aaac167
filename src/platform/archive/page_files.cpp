#include "platform/archive/page_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/archive/failure_private.h"

namespace dl::archive
{
namespace
{

// Up to this many files are synced one by one, more with their whole file system.
constexpr std::size_t kFewFiles = 40;

std::string TempName(const std::string& path)
{
    return path + ".new";
}

void SyncFileSystem(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        Fail("open " + path, errno);
    const int result = ::syncfs(fd);
    const int error = errno;
    ::close(fd);
    if (result != 0)
        Fail("sync " + path, error);
}

}  // namespace

PageBatch::~PageBatch()
{
    for (const std::string& path : paths_)
        (void)Files().Remove(TempName(top_ + "/" + path).c_str());  // the failure came before
}

void PageBatch::MakeFolderOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash);
    if (!folders_.insert(folder).second)
        return;
    std::error_code error;
    std::filesystem::create_directories(top_ + "/" + folder, error);
    if (error)
        Fail("make the folder " + top_ + "/" + folder, error.value());
}

void PageBatch::Add(const std::string& path, std::string_view bytes)
{
    if (!TryAdd(path, [bytes](FileWriter* out) { return out->Write(bytes); }))
        Fail("write " + top_ + "/" + path, 0);
}

bool PageBatch::TryAdd(const std::string& path, const std::function<bool(FileWriter*)>& write)
{
    const FaultWatch watch;
    MakeFolderOf(path);
    const std::string name = TempName(top_ + "/" + path);
    paths_.push_back(path);
    errno = 0;
    FileWriter out(name, "wb");
    const bool filled = out.IsOpen() && write(&out);
    const int error = errno;
    if (!out.Close())  // also when it could not be opened, or a write failed
        Fail("write " + top_ + "/" + path, error);
    if (filled)
        return true;
    watch.FailIfMachine("write " + top_ + "/" + path);
    paths_.pop_back();
    RemoveTree(name);
    return false;
}

void PageBatch::SyncFiles() const
{
    if (paths_.size() > kFewFiles) {
        SyncFileSystem(top_);
        return;
    }
    for (const std::string& path : paths_)
        if (!SyncPath(TempName(top_ + "/" + path)))
            Fail("sync " + top_ + "/" + path, errno);
}

void PageBatch::SyncFolders() const
{
    if (paths_.size() > kFewFiles) {
        SyncFileSystem(top_);
        return;
    }
    std::unordered_set<std::string> folders;
    for (const std::string& path : paths_)
        folders.insert(path.substr(0, path.rfind('/') + 1));
    folders.insert("");  // a new folder's own entry, one level up
    for (const std::string& folder : folders) {
        const std::string full = top_ + "/" + folder;
        if (!SyncPath(full) || !SyncPath(full + (folder.empty() ? "." : "..")))
            Fail("sync " + full, errno);
    }
}

void PageBatch::Commit()
{
    SyncFiles();
    for (const std::string& path : paths_) {
        const std::string name = top_ + "/" + path;
        if (!Files().Rename(TempName(name).c_str(), name.c_str()))
            Fail("replace " + name, errno);
    }
    SyncFolders();
    paths_.clear();
}

void RemoveTree(const std::string& path)
{
    std::error_code error;
    if (std::filesystem::is_directory(std::filesystem::symlink_status(path, error))) {
        std::filesystem::remove_all(path, error);
        if (error)
            Fail("remove " + path, error.value());
        return;
    }
    (void)Files().Remove(TempName(path).c_str());  // of a run that was interrupted
    if (!Files().Remove(path.c_str()) && errno != ENOENT && errno != ENOTDIR)
        Fail("remove " + path, errno);
}

WriterLock::WriterLock(const std::string& archive_path)
{
    const std::string name = archive_path + "/.lock";
    fd_ = ::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
    if (fd_ < 0)
        Fail("open " + name, errno);
    int result = 0;
    do {
        result = ::flock(fd_, LOCK_EX);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        const int error = errno;
        ::close(fd_);
        Fail("lock " + name, error);
    }
}

WriterLock::~WriterLock()
{
    ::close(fd_);
}

}  // namespace dl::archive
