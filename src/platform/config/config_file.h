// The bytes of a configuration file: read whole, replaced whole, locked against other writers.
//
// Stands on system calls alone, because the log and the file library read their own settings
// through this folder.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace dl::config
{

// A file beyond this is no configuration; what stands before it is used, and it is never rewritten.
inline constexpr std::size_t kMaxFileBytes = std::size_t{16} << 20;

enum class ReadResult {
    kDone,
    kMissing,
    kTooLong,     // `bytes` are the whole lines before the limit
    kUnreadable,  // `error` is errno; EISDIR and EINVAL for what is no regular file
};

struct FileBytes {
    ReadResult result = ReadResult::kUnreadable;
    int error = 0;
    struct stat state = {};  // of what was read, taken before the first byte
    std::string bytes;
};

[[nodiscard]] FileBytes ReadWholeFile(const std::string& path);

// Replaces `path` by "<path>.part", which was synced before the rename; the caller holds the
// WriteLock. The file gets mode, owner and group of `old` as far as this process may set them;
// `old` null: mode 0640 less the umask.
[[nodiscard]] bool ReplaceWholeFile(const std::string& path, std::string_view bytes,
                                    const struct stat* old);

// Holds an exclusive lock on "<path>.lock", which stays there, while it lives. Waits for other
// holders; threads of one process exclude each other too.
class WriteLock
{
 public:
    WriteLock(const std::string& path, const struct stat* old);
    ~WriteLock();
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;
    [[nodiscard]] bool Held() const { return file_ >= 0; }

 private:
    int file_ = -1;
};

}  // namespace dl::config
