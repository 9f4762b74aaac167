// Pages on their way to the disk, many at a time.
//
// Each file is written beside its place under a temporary name. Commit brings all of them to the
// disk, then renames each over the old one, then makes the renames last. So a page is always the
// old one or the new one, whole, whatever happens in between, and many pages cost no more waiting
// for the disk than one. Failures are CDlArchiveExceptions; files that were not renamed by then are
// removed. One writer per folder tree.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/files/files.h"

namespace dl::archive
{

class PageBatch
{
 public:
    // `top`: the folder that all paths are below.
    explicit PageBatch(const std::string& top) : top_(top) {}
    ~PageBatch();
    PageBatch(const PageBatch&) = delete;
    PageBatch& operator=(const PageBatch&) = delete;

    [[nodiscard]] const std::string& Top() const { return top_; }
    void Add(const std::string& path, std::string_view bytes);
    // A file that `write` fills. False when `write` has nothing to fill it with: there is no file
    // then. What the machine is to blame for is thrown.
    [[nodiscard]] bool TryAdd(const std::string& path,
                              const std::function<bool(FileWriter*)>& write);
    [[nodiscard]] std::size_t Size() const { return paths_.size(); }
    void Commit();

 private:
    void MakeFolderOf(const std::string& path);
    void SyncFiles() const;
    void SyncFolders() const;

    std::string top_;
    std::vector<std::string> paths_;
    std::unordered_set<std::string> folders_;  // that are there
};

// Removes a file or a folder with all in it. Nothing there is as good.
void RemoveTree(const std::string& path);

// Holds `<archive path>/.lock` while it lives: one program at a time reads incoming postings and
// writes pages. Waits for the one before.
class WriterLock
{
 public:
    explicit WriterLock(const std::string& archive_path);
    ~WriterLock();
    WriterLock(const WriterLock&) = delete;
    WriterLock& operator=(const WriterLock&) = delete;

 private:
    int fd_;
};

}  // namespace dl::archive
