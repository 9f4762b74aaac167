// A message file by its bytes: ranges, lines and the delimiter lines of multiparts (RFC
// 2046, 5.1.1).
//
// Everything reads with pread in blocks and holds no more than a block and the start of a line,
// whatever the file's size. A search that ends at a read error gives what it gives when it finds
// nothing; the file remembers the error, so whoever uses a result asks Failed() once at the end.
// Faults of the machine are noted (files/machine_fault.h). Nothing here logs. One thread per file.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dl
{

// A regular file that is open for reading.
class RawFile
{
 public:
    explicit RawFile(const std::string& path);
    ~RawFile();
    RawFile(const RawFile&) = delete;
    RawFile& operator=(const RawFile&) = delete;

    [[nodiscard]] bool IsOpen() const { return open_; }
    [[nodiscard]] std::int64_t Size() const { return size_; }  // when it was opened
    [[nodiscard]] mode_t Mode() const { return mode_; }        // permissions
    // Reads exactly `size` bytes at `from`. False on a read error and when the file is shorter.
    [[nodiscard]] bool Read(std::int64_t from, char* bytes, std::size_t size) const;
    // All bytes of [from, to).
    [[nodiscard]] bool ReadAt(std::int64_t from, std::int64_t to, std::string* bytes) const;
    // Whether a read has failed since the file was opened.
    [[nodiscard]] bool Failed() const { return failed_; }

 private:
    int fd_ = -1;
    bool open_ = false;
    std::int64_t size_ = 0;
    mode_t mode_ = 0;
    mutable bool failed_ = false;
};

// Reads the lines of [from, to), however long they are.
class LineScanner
{
 public:
    struct Line {
        std::int64_t begin = 0;
        std::int64_t end = 0;    // behind the line feed
        std::string_view start;  // its first bytes, up to kStart; valid until the next call
    };
    static constexpr std::size_t kStart = 1024;

    LineScanner(const RawFile& file, std::int64_t from, std::int64_t to)
        : file_(file), next_(from), read_(from), to_(to)
    {
    }
    [[nodiscard]] std::optional<Line> Next();

 private:
    bool Fill();

    const RawFile& file_;
    std::int64_t next_;  // where the next line begins
    std::int64_t read_;  // how far the file has been read
    std::int64_t to_;
    std::string buffer_;
    std::size_t used_ = 0;
    std::string start_;
};

// The first byte behind the first empty line of [from, to).
[[nodiscard]] std::int64_t BehindEmptyLine(const RawFile& file, std::int64_t from, std::int64_t to);
// Where the first delimiter line of one of `boundaries` in [from, to) begins; `to` when there is
// none.
[[nodiscard]] std::int64_t FindDelimiter(const RawFile& file, std::int64_t from, std::int64_t to,
                                         const std::vector<std::string>& boundaries);
// Where the header of the part begins whose body is at `body`: behind the last delimiter line of
// `boundary` before it.
[[nodiscard]] std::int64_t HeaderBegin(const RawFile& file, std::int64_t body,
                                       const std::string& boundary);
// Whether `line` is a delimiter or close-delimiter line of `boundary`.
[[nodiscard]] bool IsDelimiter(std::string_view line, std::string_view boundary);

}  // namespace dl
