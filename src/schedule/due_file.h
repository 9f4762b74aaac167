// The one-number files that keep a due moment over restarts: "digest.dt" of each list, "index.dt"
// of the server.
//
// Content: one decimal number of seconds since 1970-01-01 UTC, no line end, rewritten in place from
// the first byte and brought to the disk. A file that holds no number counts as 0, due at once; one
// beyond what a time can be, as the latest. Nothing here logs.
#pragma once

#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

namespace dl
{

class DueFile
{
 public:
    // Opens an existing file for reading and writing; IsOpen() is false when that fails.
    explicit DueFile(const std::string& path);
    ~DueFile();
    // Whether it would be open, at a third of the cost.
    [[nodiscard]] static bool Exists(const std::string& path);
    DueFile(const DueFile&) = delete;
    DueFile& operator=(const DueFile&) = delete;

    [[nodiscard]] bool IsOpen() const { return file_ != nullptr; }
    [[nodiscard]] std::time_t Read();
    [[nodiscard]] bool Overwrite(std::time_t moment);

    // Creates or replaces the file with `moment`. False when it cannot be created, or not be
    // written: it is removed then.
    [[nodiscard]] static bool Create(const std::string& path, std::time_t moment);

 private:
    std::FILE* file_;
};

// <data path>/<list>/digest/digest.dt; the second for whoever needs many, and has the data path.
[[nodiscard]] std::string DigestDuePath(const std::string& list);
// <data path>/index.dt
[[nodiscard]] std::string IndexDuePath();
[[nodiscard]] std::string DigestDuePath(const std::string& data_path, const std::string& list);

}  // namespace dl
