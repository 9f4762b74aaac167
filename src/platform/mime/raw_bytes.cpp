#include "platform/mime/raw_bytes.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/files/machine_fault.h"

namespace dl
{

namespace
{

constexpr std::int64_t kBlock = 65536;
constexpr std::int64_t kMaxHeader =
    4 << 20;  // bytes of a part's header; beyond, it is not looked for

bool IsEmptyLine(std::string_view line)
{
    return line == "\n" || line == "\r\n";
}

}  // namespace

RawFile::RawFile(const std::string& path)
    : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))
{
    struct stat status {
    };
    if (fd_ < 0 || fstat(fd_, &status) != 0) {
        NoteMachineFault(errno);
        return;
    }
    size_ = status.st_size;
    mode_ = status.st_mode & 07777;
    open_ = S_ISREG(status.st_mode);
}

RawFile::~RawFile()
{
    if (fd_ >= 0)
        close(fd_);
}

bool RawFile::Read(std::int64_t from, char* bytes, std::size_t size) const
{
    for (std::size_t done = 0; done < size;) {
        const ssize_t got =
            pread(fd_, bytes + done, size - done, from + static_cast<std::int64_t>(done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            NoteMachineFault(errno);
        if (got <= 0) {
            failed_ = true;
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}

bool RawFile::ReadAt(std::int64_t from, std::int64_t to, std::string* bytes) const
{
    bytes->resize(static_cast<std::size_t>(std::max<std::int64_t>(to - from, 0)));
    return Read(from, bytes->data(), bytes->size());
}

bool LineScanner::Fill()
{
    const std::int64_t end = std::min(to_, read_ + kBlock);
    used_ = 0;
    if (end <= read_ || !file_.ReadAt(read_, end, &buffer_)) {
        buffer_.clear();
        return false;
    }
    read_ = end;
    return true;
}

std::optional<LineScanner::Line> LineScanner::Next()
{
    Line line;
    line.begin = next_;
    start_.clear();
    for (;;) {
        if (used_ == buffer_.size() && !Fill())
            break;
        const std::string_view rest = std::string_view(buffer_).substr(used_);
        const std::size_t feed = rest.find('\n');
        const std::size_t taken = feed == std::string_view::npos ? rest.size() : feed + 1;
        if (start_.size() < kStart)
            start_.append(rest.substr(0, std::min(taken, kStart - start_.size())));
        used_ += taken;
        next_ += static_cast<std::int64_t>(taken);
        if (feed != std::string_view::npos)
            break;
    }
    if (next_ == line.begin)
        return std::nullopt;
    line.end = next_;
    line.start = start_;
    return line;
}

std::int64_t BehindEmptyLine(const RawFile& file, std::int64_t from, std::int64_t to)
{
    LineScanner lines(file, from, to);
    while (const auto line = lines.Next())
        if (IsEmptyLine(line->start))
            return line->end;
    return -1;
}

bool IsDelimiter(std::string_view line, std::string_view boundary)
{
    if (!line.starts_with("--") || line.substr(2, boundary.size()) != boundary)
        return false;
    std::string_view rest = line.substr(2 + boundary.size());
    if (rest.starts_with("--"))
        rest.remove_prefix(2);
    return rest.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

std::int64_t FindDelimiter(const RawFile& file, std::int64_t from, std::int64_t to,
                           const std::vector<std::string>& boundaries)
{
    const auto delimits = [](std::string_view line, std::string_view boundary) {
        // Of a boundary that is longer than honest ones only the beginning is compared.
        return line.size() < LineScanner::kStart
                   ? IsDelimiter(line, boundary)
                   : line.substr(2, boundary.size()) == boundary.substr(0, line.size() - 2);
    };
    LineScanner lines(file, from, to);
    while (const auto line = lines.Next())
        if (line->start.starts_with("--"))
            for (const std::string& boundary : boundaries)
                if (delimits(line->start, boundary))
                    return line->begin;
    return to;
}

std::int64_t HeaderBegin(const RawFile& file, std::int64_t body, const std::string& boundary)
{
    const std::string delimiter = "--" + boundary;
    std::string bytes;
    for (std::int64_t window = 4096;; window *= 4) {
        const std::int64_t from = std::max<std::int64_t>(body - window, 0);
        if (!file.ReadAt(from, body, &bytes))
            return -1;
        for (std::size_t at = bytes.rfind(delimiter); at != std::string::npos;
             at = at == 0 ? std::string::npos : bytes.rfind(delimiter, at - 1)) {
            if (at == 0 ? from > 0 : bytes[at - 1] != '\n')
                continue;
            const std::size_t feed = bytes.find('\n', at);
            if (feed != std::string::npos &&
                IsDelimiter(std::string_view(bytes).substr(at, feed - at), boundary))
                return from + static_cast<std::int64_t>(feed) + 1;
        }
        if (from == 0 || window >= kMaxHeader)
            return -1;
    }
}

}  // namespace dl
