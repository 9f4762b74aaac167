// Holds a folder while it lives, so that one thread of one program at a time does what needs it
// alone. Waits for the one before; nothing is left in the folder. A holder that ends, however it
// ends, lets go. Not to be held over a fork.
#pragma once

#include <string>

namespace dl
{

class FolderLock
{
 public:
    explicit FolderLock(const std::string& folder);
    ~FolderLock();
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

    // False, with errno from the constructor, when the folder cannot be held at all.
    [[nodiscard]] bool Held() const { return held_; }

 private:
    int fd_ = -1;
    bool held_ = false;
};

}  // namespace dl
