// Files as the service uses them: a line reader, a checked writer, copies, temporary names, string
// chains.
//
// Every operation goes through one FileBackend, so that a test can let the n-th write fail as a
// full disk would. Nothing here logs. A line has no length limit and may hold NUL bytes. Handles
// close themselves; a writer whose result matters is closed by Close(), which says whether
// everything reached the file.
#pragma once

#include <sys/types.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace dl
{

// The operations underneath. Results as of the C library; errno is set on failure.
class FileBackend
{
 public:
    virtual ~FileBackend() = default;
    virtual std::FILE* Open(const char* path, const char* mode) = 0;
    virtual bool Write(std::FILE* file, const void* data, std::size_t size) = 0;
    virtual bool Close(std::FILE* file) = 0;  // false when buffered bytes could not be written
    virtual bool Remove(const char* path) = 0;
    virtual bool Rename(const char* from, const char* to) = 0;
    virtual bool Link(const char* from, const char* to) = 0;
};

FileBackend& Files();
FileBackend& PosixFiles();
// Puts `backend` in place of the operating system's; null goes back. Returns the one before.
FileBackend* SetFileBackend(FileBackend* backend);

// Reads a file line by line.
class LineReader
{
 public:
    explicit LineReader(const std::string& path);
    explicit LineReader(std::FILE* file);  // takes the file
    ~LineReader();
    LineReader(LineReader&&) noexcept;
    LineReader& operator=(LineReader&&) = delete;

    [[nodiscard]] bool IsOpen() const { return file_ != nullptr; }
    // The next line with its own line end, valid until the next call; none at the end or after a
    // read error.
    [[nodiscard]] std::optional<std::string_view> Next();
    // At most `limit` bytes of the next line, as fgets with a buffer of limit + 1 would give.
    [[nodiscard]] std::optional<std::string_view> NextPiece(std::size_t limit);
    [[nodiscard]] bool Failed() const { return failed_; }

 private:
    bool Fill();
    std::FILE* file_ = nullptr;
    std::string buffer_;
    std::size_t begin_ = 0;
    bool failed_ = false;
};

// Writes a file, every write checked. After a failed write all further ones fail.
class FileWriter
{
 public:
    FileWriter(const std::string& path, const char* mode);
    ~FileWriter();
    FileWriter(FileWriter&&) noexcept;
    FileWriter& operator=(FileWriter&&) = delete;

    [[nodiscard]] bool IsOpen() const { return file_ != nullptr; }
    [[nodiscard]] bool Write(std::string_view bytes);
    [[nodiscard]] bool Print(const char* format, ...) __attribute__((format(printf, 2, 3)));
    [[nodiscard]] bool PrintList(const char* format, va_list args)
        __attribute__((format(printf, 2, 0)));
    [[nodiscard]] std::int64_t Written() const { return written_; }  // bytes
    [[nodiscard]] bool EndsLine() const { return last_ == '\n'; }
    // Flushes and closes. False when any write, or this, failed. Later calls return the same.
    [[nodiscard]] bool Close();

 private:
    std::FILE* file_ = nullptr;
    bool ok_ = true;
    std::int64_t written_ = 0;
    char last_ = '\0';
};

// The utility library's calls of the same purpose.
using FileHandle = std::unique_ptr<LineReader>;
[[nodiscard]] FileHandle FileOpen(const std::string& path, int mode,
                                  int text);  // 1, 1: read; null on failure
// 1 while it delivers a line; the text is valid until the next call.
[[nodiscard]] int GetLine(LineReader* handle, std::string_view* line);
void FileClose(FileHandle handle);
[[nodiscard]] std::unique_ptr<FileWriter> FileCreate(const std::string& path, int mode,
                                                     int text);  // 2, 1
[[nodiscard]] bool PutLine(FileWriter* handle, std::string_view line);

struct CFileUtilException : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class CFileUtil
{
 public:
    explicit CFileUtil(const char* module);
    // Copies the bytes of `from` to `to`, which is created or replaced. `block` is the size of one
    // read in bytes. Throws CFileUtilException with a text that names both; `to` is removed then.
    void Copy(const std::string& from, const std::string& to, unsigned long block);

 private:
    std::string module_;
};

// Makes an empty file of mode 0600 with a new name beginning with `prefix` in `folder` (null:
// $TMPDIR or /tmp). Its full path; empty when none can be made.
[[nodiscard]] std::string KVTGetTempFileName(const char* folder, const char* prefix);
void FreeString(std::string* name);

// Texts already seen, compared without regard to case.
class StringChain
{
 public:
    [[nodiscard]] bool Contains(const std::string& text) const;
    [[nodiscard]] bool Empty() const { return texts_.empty(); }

 private:
    friend void appendString(StringChain* chain, const std::string& text);
    friend void freeStringChain(StringChain* chain);
    std::unordered_set<std::string> texts_;
};
void appendString(StringChain* chain, const std::string& text);
void freeStringChain(StringChain* chain);

// Bytes of `path`, or -1.
[[nodiscard]] std::int64_t FileSize(const std::string& path);
// The last component of `path`, cut at its last '.'.
[[nodiscard]] std::string BaseName(const std::string& path);
// Writes `bytes` to a temp file beside `path`, syncs it, renames it over `path` and syncs the
// folder. False: `path` is as it was.
[[nodiscard]] bool ReplaceFile(const std::string& path, std::string_view bytes, mode_t mode);
// fsync of a file or folder by name.
[[nodiscard]] bool SyncPath(const std::string& path);

}  // namespace dl
