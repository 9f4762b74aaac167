// A message file as it goes over the wire (RFC 5321, 4.1.1.4 and 4.5.2).
//
// Open reads the file once for what the MAIL command must say. A WireReader gives its bytes: each
// line end as CRLF, a dot more before a line that begins with one, a line end where the last is
// missing, and the dot that ends it all. A CR that ends no line is given as a blank: it must not go
// out (RFC 5321, 2.3.8), and a server that took it for a line end would see lines that nobody
// wrote. Several readers of one file may be used by several threads at once.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace dl::smtp
{

class MessageFile
{
 public:
    MessageFile() = default;
    ~MessageFile();
    MessageFile(const MessageFile&) = delete;
    MessageFile& operator=(const MessageFile&) = delete;

    // False, with plain words in `cause`, when it cannot be opened or read; a fault of the machine
    // is noted (platform/files/machine_fault.h).
    [[nodiscard]] bool Open(const std::string& path, std::string* cause);
    [[nodiscard]] std::int64_t WireBytes() const { return wire_bytes_; }  // without added dots
    [[nodiscard]] bool EightBit() const { return eight_bit_; }

 private:
    friend class WireReader;
    int fd_ = -1;
    std::int64_t wire_bytes_ = 0;
    bool eight_bit_ = false;
};

class WireReader
{
 public:
    explicit WireReader(const MessageFile& file) : file_(file) {}

    enum class Result { kMore, kEnd, kFailed };
    // Appends the next piece, at most some 130 KiB, to `out`. kEnd: that was the last, with the
    // dot. kFailed: the file cannot be read, or is not what it was; nothing was appended.
    [[nodiscard]] Result Next(std::string* out);

 private:
    void Append(std::string_view bytes, std::string* out);

    const MessageFile& file_;
    std::int64_t at_ = 0;
    std::string block_;
    bool line_start_ = true;
    bool cr_ = false;         // the last byte was a CR that is not given yet
    std::int64_t bytes_ = 0;  // given, without added dots
};

}  // namespace dl::smtp
