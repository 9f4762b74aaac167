// A file whose bytes are locked to claim things; the locks work beyond its end too.
//
// A lock belongs to the one open descriptor of this object, so the kernel ends it when the process
// ends, however it ends, and two objects exclude each other also within one process. A child of
// fork() closes the descriptor at once: a claim never outlives the process that made it, and the
// child's copy of the object can do nothing any more.
#pragma once

#include <sys/types.h>

#include <string>

namespace dl
{

class LockFile
{
 public:
    LockFile() = default;
    ~LockFile();
    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;

    // Opens the file for reading and writing, or makes it. False with errno.
    [[nodiscard]] bool Open(const std::string& path);
    [[nodiscard]] int fd() const { return fd_; }

    // False when another object has the byte.
    [[nodiscard]] bool Try(off_t byte) const;
    // Waits for the byte. False with errno, when it cannot be locked at all.
    [[nodiscard]] bool Wait(off_t byte) const;
    // Waits for the byte, which others may share then; turns this object's own lock into a shared
    // one.
    [[nodiscard]] bool WaitShared(off_t byte) const;
    void Unlock(off_t byte) const;
    // Whether another object has the byte.
    [[nodiscard]] bool IsLocked(off_t byte) const;

 private:
    int fd_ = -1;
};

}  // namespace dl
