// Changing an LDIF file: a lock that all writers take, and a replacement of some of its bytes that
// readers see as a whole or not at all.
//
// Nothing here logs; the texts are for the caller's line. Objects are made for one change.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace dl
{

// Puts `text` in place of the bytes [begin, end).
struct LdifEdit {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    std::string text;
};

// flock on "<path>.lock", which stays there and has the file's owner and mode. Given back by the
// destructor, and by the system when the process ends.
class LdifLock
{
 public:
    // Waits up to `seconds`.
    LdifLock(const std::string& path, int seconds);
    ~LdifLock();
    LdifLock(const LdifLock&) = delete;
    LdifLock& operator=(const LdifLock&) = delete;

    [[nodiscard]] bool Held() const { return held_; }
    [[nodiscard]] const std::string& Error() const { return error_; }

 private:
    int fd_ = -1;
    bool held_ = false;
    std::string error_;
};

enum class LdifWrite {
    kDone,
    kFailed,   // the file is as it was
    kChanged,  // the file is as it was, and it is no longer the one that was read: read it again
    kUnsynced  // the new file is there, but may not outlive a power failure
};

// Writes `file` (opened at `path`, in state `state` since before it was read) with the edits, which
// are in the order of the file and do not overlap, to a temporary file; syncs it, gives it owner
// and mode of the old one, renames it, syncs the folder.
[[nodiscard]] LdifWrite ApplyLdifEdits(std::FILE* file, const struct stat& state,
                                       const std::string& path, const std::vector<LdifEdit>& edits,
                                       std::string* error);

// Whether two states are of the same file with the same bytes.
[[nodiscard]] bool SameState(const struct stat& a, const struct stat& b);

}  // namespace dl
