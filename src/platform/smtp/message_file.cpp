#include "platform/smtp/message_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "platform/files/machine_fault.h"

namespace dl::smtp
{
namespace
{

constexpr std::size_t kBlock = 65'536;

ssize_t ReadAt(int fd, char* bytes, std::int64_t at)
{
    ssize_t got = 0;
    do {
        got = pread(fd, bytes, kBlock, at);
    } while (got < 0 && errno == EINTR);
    return got;
}

// The first CR or LF; npos when there is none.
std::size_t LineBreak(std::string_view bytes)
{
    const std::size_t lf = bytes.find('\n');
    const std::size_t cr = bytes.substr(0, lf).find('\r');
    return cr != std::string_view::npos ? cr : lf;
}

bool HasHighByte(std::string_view bytes)
{
    std::size_t i = 0;
    std::uint64_t word = 0;
    for (; i + sizeof word <= bytes.size(); i += sizeof word) {
        std::memcpy(&word, bytes.data() + i, sizeof word);
        if ((word & 0x8080808080808080U) != 0)
            return true;
    }
    for (; i < bytes.size(); ++i)
        if ((static_cast<unsigned char>(bytes[i]) & 0x80) != 0)
            return true;
    return false;
}

}  // namespace

MessageFile::~MessageFile()
{
    if (fd_ >= 0)
        close(fd_);
}

bool MessageFile::Open(const std::string& path, std::string* cause)
{
    fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct stat state {
    };
    if (fd_ < 0 || fstat(fd_, &state) != 0) {
        NoteMachineFault(errno);
        *cause = std::generic_category().message(errno);
        return false;
    }
    if (!S_ISREG(state.st_mode)) {
        *cause = "it is no file";
        return false;
    }
    std::string block(kBlock, '\0');
    char last = '\n';
    for (std::int64_t at = 0;;) {
        const ssize_t got = ReadAt(fd_, block.data(), at);
        if (got < 0) {
            NoteMachineFault(errno);
            *cause = std::generic_category().message(errno);
        }
        if (got <= 0)
            break;
        const std::string_view bytes(block.data(), static_cast<std::size_t>(got));
        eight_bit_ = eight_bit_ || HasHighByte(bytes);
        wire_bytes_ += got;
        for (std::size_t lf = bytes.find('\n'); lf != bytes.npos; lf = bytes.find('\n', lf + 1))
            wire_bytes_ += (lf > 0 ? bytes[lf - 1] : last) == '\r' ? 0 : 1;
        last = bytes.back();
        at += got;
    }
    if (last != '\n')
        wire_bytes_ += 2;
    return cause->empty();
}

WireReader::Result WireReader::Next(std::string* out)
{
    block_.resize(kBlock);
    const ssize_t got = ReadAt(file_.fd_, block_.data(), at_);
    if (got < 0)
        return Result::kFailed;
    if (got > 0) {
        at_ += got;
        Append(std::string_view(block_).substr(0, static_cast<std::size_t>(got)), out);
        return Result::kMore;
    }
    const std::size_t before = out->size();
    if (cr_)
        *out += ' ';
    if (cr_ || !line_start_)
        *out += "\r\n";
    bytes_ += static_cast<std::int64_t>(out->size() - before);
    if (bytes_ != file_.WireBytes()) {
        out->resize(before);
        return Result::kFailed;
    }
    *out += ".\r\n";
    return Result::kEnd;
}

void WireReader::Append(std::string_view bytes, std::string* out)
{
    const std::size_t before = out->size();
    std::int64_t dots = 0;
    while (!bytes.empty()) {
        if (cr_ && bytes[0] != '\n') {
            *out += ' ';
            line_start_ = false;
        }
        cr_ = false;
        if (line_start_ && bytes[0] == '.') {
            *out += '.';
            ++dots;
        }
        const std::size_t end = LineBreak(bytes);
        *out += bytes.substr(0, end);
        line_start_ = line_start_ && end == 0;
        if (end == std::string_view::npos)
            break;
        if (bytes[end] == '\n') {
            *out += "\r\n";
            line_start_ = true;
        } else {
            cr_ = true;
        }
        bytes.remove_prefix(end + 1);
    }
    bytes_ += static_cast<std::int64_t>(out->size() - before) - dots;
}

}  // namespace dl::smtp
