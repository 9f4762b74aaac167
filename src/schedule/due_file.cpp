#include "schedule/due_file.h"

#include <fcntl.h>
#include <unistd.h>

#include "platform/config/data_path.h"
#include "platform/files/files.h"
#include "platform/log/format.h"

namespace dl
{

DueFile::DueFile(const std::string& path) : file_(Files().Open(path.c_str(), "r+b")) {}

DueFile::~DueFile()
{
    if (file_)
        (void)Files().Close(file_);  // Overwrite has flushed what it wrote
}

std::time_t DueFile::Read()
{
    long moment = 0;
    std::rewind(file_);
    return std::fscanf(file_, "%ld", &moment) == 1 ? moment : 0;
}

bool DueFile::Overwrite(std::time_t moment)
{
    char text[32];
    const int length = std::snprintf(text, sizeof text, "%ld", static_cast<long>(moment));
    std::rewind(file_);
    // Cut: what a damaged file had more would be read as a part of the number for ever.
    return Files().Write(file_, text, static_cast<std::size_t>(length)) &&
           std::fflush(file_) == 0 && ftruncate(fileno(file_), length) == 0 &&
           fdatasync(fileno(file_)) == 0;
}

bool DueFile::Create(const std::string& path, std::time_t moment)
{
    FileWriter out(path, "wb");
    if (!out.IsOpen())
        return false;
    (void)out.Print("%ld", static_cast<long>(moment));  // Close says whether it reached the disk
    if (out.Close())
        return true;
    (void)Files().Remove(path.c_str());  // an empty file would be due at once, and never replaced
    return false;
}

bool DueFile::Exists(const std::string& path)
{
    return faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK, AT_EACCESS) == 0;
}

std::string DigestDuePath(const std::string& list)
{
    return DigestDuePath(DataPath(), list);
}

std::string DigestDuePath(const std::string& data_path, const std::string& list)
{
    return FormatText("%s%c%s%cdigest%cdigest.dt", data_path.c_str(), '/', list.c_str(), '/', '/');
}

std::string IndexDuePath()
{
    return DataPath() + "/index.dt";
}

}  // namespace dl
