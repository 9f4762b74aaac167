#include "platform/files/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "platform/address/address.h"
#include "platform/files/machine_fault.h"

namespace dl
{
namespace
{

class Posix : public FileBackend
{
 public:
    std::FILE* Open(const char* path, const char* mode) override { return std::fopen(path, mode); }
    bool Write(std::FILE* file, const void* data, std::size_t size) override
    {
        return fwrite_unlocked(data, 1, size, file) == size;
    }
    bool Close(std::FILE* file) override { return std::fclose(file) == 0; }
    bool Remove(const char* path) override { return ::unlink(path) == 0; }
    bool Rename(const char* from, const char* to) override { return std::rename(from, to) == 0; }
    bool Link(const char* from, const char* to) override { return ::link(from, to) == 0; }
};

std::atomic<FileBackend*> installed{nullptr};

std::string Cause(const std::string& what)
{
    NoteMachineFault(errno);
    return what + ": " + std::error_code(errno, std::generic_category()).message();
}

}  // namespace

FileBackend& PosixFiles()
{
    static Posix posix;
    return posix;
}

FileBackend& Files()
{
    FileBackend* backend = installed.load();
    return backend ? *backend : PosixFiles();
}

FileBackend* SetFileBackend(FileBackend* backend)
{
    return installed.exchange(backend);
}

FileHandle FileOpen(const std::string& path, int /*mode*/, int /*text*/)
{
    auto reader = std::make_unique<LineReader>(path);
    if (!reader->IsOpen())
        return nullptr;
    return reader;
}

int GetLine(LineReader* handle, std::string_view* line)
{
    const auto next = handle->Next();
    if (!next)
        return 0;
    *line = *next;
    return 1;
}

void FileClose(FileHandle handle)
{
    handle.reset();
}

std::unique_ptr<FileWriter> FileCreate(const std::string& path, int /*mode*/, int /*text*/)
{
    auto writer = std::make_unique<FileWriter>(path, "wb");
    if (!writer->IsOpen())
        return nullptr;
    return writer;
}

bool PutLine(FileWriter* handle, std::string_view line)
{
    return handle->Write(line);
}

CFileUtil::CFileUtil(const char* module) : module_(module) {}

void CFileUtil::Copy(const std::string& from, const std::string& to, unsigned long block)
{
    std::FILE* in = Files().Open(from.c_str(), "rb");
    if (!in)
        throw CFileUtilException(Cause(module_ + ": cannot read " + from));
    struct stat status {
    };
    FileWriter out(to, "wb");
    std::string error;
    if (fstat(fileno(in), &status) != 0 || !S_ISREG(status.st_mode))
        error = module_ + ": " + from + " is no file";
    else if (!out.IsOpen())
        error = Cause(module_ + ": cannot create " + to);
    std::vector<char> buffer(block ? block : 4096);
    while (error.empty()) {
        const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), in);
        if (got == 0)
            break;
        if (!out.Write({buffer.data(), got}))
            error = Cause(module_ + ": cannot write " + to);
    }
    if (error.empty() && std::ferror(in))
        error = Cause(module_ + ": cannot read " + from);
    std::fclose(in);
    if (!out.Close() && error.empty())
        error = Cause(module_ + ": cannot write " + to);
    if (!error.empty()) {
        (void)Files().Remove(to.c_str());  // there may be nothing to remove
        throw CFileUtilException(error);
    }
}

std::string KVTGetTempFileName(const char* folder, const char* prefix)
{
    const char* environment = std::getenv("TMPDIR");
    std::string path = folder ? folder : environment && *environment ? environment : "/tmp";
    path += '/';
    path += prefix;
    path += "XXXXXX";
    const int fd = mkostemp(path.data(), O_CLOEXEC);
    if (fd < 0) {
        NoteMachineFault(errno);
        return "";
    }
    ::close(fd);
    return path;
}

void FreeString(std::string* name)
{
    name->clear();
}

bool StringChain::Contains(const std::string& text) const
{
    return texts_.count(LowerCase(text)) != 0;
}

void appendString(StringChain* chain, const std::string& text)
{
    chain->texts_.insert(LowerCase(text));
}

void freeStringChain(StringChain* chain)
{
    chain->texts_.clear();
}

std::int64_t FileSize(const std::string& path)
{
    struct stat status {
    };
    return ::stat(path.c_str(), &status) == 0 ? static_cast<std::int64_t>(status.st_size) : -1;
}

std::string BaseName(const std::string& path)
{
    std::string name = path.substr(path.rfind('/') + 1);
    const std::size_t dot = name.rfind('.');
    if (dot != std::string::npos)
        name.erase(dot);
    return name;
}

bool SyncPath(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool done = ::fsync(fd) == 0;
    const int error = errno;
    ::close(fd);
    errno = error;
    if (!done)
        NoteMachineFault(error);
    return done;
}

bool ReplaceFile(const std::string& path, std::string_view bytes, mode_t mode)
{
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const std::string temp = KVTGetTempFileName(folder.c_str(), ".new-");
    if (temp.empty())
        return false;
    FileWriter out(temp, "wb");
    const bool written = out.IsOpen() && out.Write(bytes) && out.Close() &&
                         ::chmod(temp.c_str(), mode) == 0 && SyncPath(temp) &&
                         Files().Rename(temp.c_str(), path.c_str());
    if (!written) {
        NoteMachineFault(errno);
        (void)Files().Remove(temp.c_str());  // the failure that is reported came before
        return false;
    }
    return SyncPath(folder);
}

}  // namespace dl
