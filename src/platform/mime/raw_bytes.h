// A message file by its bytes: ranges, lines and the delimiter lines of multiparts (RFC
// 2046, 5.1.1).
//
// Everything reads with pread in blocks and holds no more than a block and the start of a line,
// whatever the file's size. -1 and false stand for "not there" and for a read error alike: the
// caller leaves the message alone in both.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dl
{

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

    LineScanner(int fd, std::int64_t from, std::int64_t to)
        : fd_(fd), next_(from), read_(from), to_(to)
    {
    }
    [[nodiscard]] std::optional<Line> Next();

 private:
    bool Fill();

    int fd_;
    std::int64_t next_;  // where the next line begins
    std::int64_t read_;  // how far the file has been read
    std::int64_t to_;
    std::string buffer_;
    std::size_t used_ = 0;
    std::string start_;
};

// All bytes of [from, to).
[[nodiscard]] bool ReadAt(int fd, std::int64_t from, std::int64_t to, std::string* bytes);
// Number of lines that begin with "--", counted up to `limit`.
[[nodiscard]] std::int64_t CountDashLines(int fd, std::int64_t size, std::int64_t limit);
// The first byte behind the first empty line of [from, to).
[[nodiscard]] std::int64_t BehindEmptyLine(int fd, std::int64_t from, std::int64_t to);
// Where the first delimiter line of one of `boundaries` in [from, to) begins; `to` when there is
// none.
[[nodiscard]] std::int64_t FindDelimiter(int fd, std::int64_t from, std::int64_t to,
                                         const std::vector<std::string>& boundaries);
// Where the header of the part begins whose body is at `body`: behind the last delimiter line of
// `boundary` before it.
[[nodiscard]] std::int64_t HeaderBegin(int fd, std::int64_t body, const std::string& boundary);
// Whether `line` is a delimiter or close-delimiter line of `boundary`.
[[nodiscard]] bool IsDelimiter(std::string_view line, std::string_view boundary);

}  // namespace dl
