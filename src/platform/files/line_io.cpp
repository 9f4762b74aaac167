#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <utility>

#include "platform/files/files.h"
#include "platform/files/machine_fault.h"
#include "platform/log/format.h"

namespace dl
{
namespace
{

constexpr std::size_t kChunk = 65536;

}  // namespace

LineReader::LineReader(const std::string& path) : file_(Files().Open(path.c_str(), "rb"))
{
    if (!file_)
        NoteMachineFault(errno);
}

LineReader::LineReader(std::FILE* file) : file_(file) {}

LineReader::LineReader(LineReader&& other) noexcept
    : file_(std::exchange(other.file_, nullptr)),
      buffer_(std::move(other.buffer_)),
      begin_(other.begin_),
      failed_(other.failed_)
{
}

LineReader::~LineReader()
{
    if (file_)
        (void)Files().Close(file_);  // nothing was written
}

bool LineReader::Fill()
{
    if (!file_)
        return false;
    buffer_.erase(0, begin_);
    begin_ = 0;
    const std::size_t kept = buffer_.size();
    // A long line doubles the buffer, so that finding its end stays linear.
    const std::size_t more = kept > kChunk ? kept : kChunk;
    buffer_.resize(kept + more);
    errno = 0;
    const std::size_t got = std::fread(buffer_.data() + kept, 1, more, file_);
    const int error = errno;
    buffer_.resize(kept + got);
    if (std::ferror(file_) != 0) {
        NoteMachineFault(error);
        failed_ = true;
    }
    return got > 0;
}

std::optional<std::string_view> LineReader::Next()
{
    return NextPiece(std::string::npos);
}

std::optional<std::string_view> LineReader::NextPiece(std::size_t limit)
{
    std::size_t searched = 0;
    for (;;) {
        const std::size_t there = buffer_.size() - begin_;
        const char* start = buffer_.data() + begin_;
        const std::size_t window = there < limit ? there : limit;
        const void* end =
            window > searched ? std::memchr(start + searched, '\n', window - searched) : nullptr;
        std::size_t length = 0;
        if (end)
            length = static_cast<std::size_t>(static_cast<const char*>(end) - start) + 1;
        else if (there >= limit)
            length = limit;
        if (length == 0) {
            searched = window;
            if (Fill())
                continue;
            length = buffer_.size() - begin_;
            if (length == 0 || failed_)
                return std::nullopt;
        }
        const std::string_view line(buffer_.data() + begin_, length);
        begin_ += length;
        return line;
    }
}

FileWriter::FileWriter(const std::string& path, const char* mode)
    : file_(Files().Open(path.c_str(), mode)), ok_(file_ != nullptr)
{
    if (!file_)
        NoteMachineFault(errno);
}

FileWriter::FileWriter(FileWriter&& other) noexcept
    : file_(std::exchange(other.file_, nullptr)),
      ok_(other.ok_),
      written_(other.written_),
      last_(other.last_)
{
}

FileWriter::~FileWriter()
{
    if (file_)
        (void)Files().Close(file_);  // given up: whoever wanted the content has called Close
}

bool FileWriter::Write(std::string_view bytes)
{
    if (ok_ && file_ && !Files().Write(file_, bytes.data(), bytes.size())) {
        NoteMachineFault(errno);
        ok_ = false;
    }
    ok_ = ok_ && file_;
    last_ = bytes.empty() ? last_ : bytes.back();
    written_ += ok_ ? static_cast<std::int64_t>(bytes.size()) : 0;
    return ok_;
}

bool FileWriter::Print(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const bool done = PrintList(format, args);
    va_end(args);
    return done;
}

bool FileWriter::PrintList(const char* format, va_list args)
{
    return Write(FormatTextList(format, args));
}

bool FileWriter::Close()
{
    if (file_ && !Files().Close(std::exchange(file_, nullptr))) {
        NoteMachineFault(errno);
        ok_ = false;
    }
    return ok_;
}

}  // namespace dl
