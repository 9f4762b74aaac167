#include <sys/stat.h>

#include <algorithm>

#include "platform/files/files.h"
#include "platform/mime/disclaimer_private.h"
#include "platform/mime/raw_bytes.h"

namespace dl
{

namespace
{

constexpr std::int64_t kBlock = 65536;

bool CopyRange(int fd, std::int64_t from, std::int64_t to, FileWriter* out)
{
    std::string block;
    for (; from < to; from += kBlock)
        if (!ReadAt(fd, from, std::min(to, from + kBlock), &block) || !out->Write(block))
            return false;
    return true;
}

bool WriteSpliced(int fd, std::int64_t size, const std::vector<Splice>& splices, FileWriter* out)
{
    std::int64_t done = 0;
    for (const Splice& splice : splices) {
        if (splice.from < done || !CopyRange(fd, done, splice.from, out) ||
            !out->Write(splice.bytes))
            return false;
        done = splice.to;
    }
    return CopyRange(fd, done, size, out);
}

}  // namespace

// Nothing is synced: the file belongs to a queue entry that is not closed, and closing it syncs
// file and folder.
bool ApplySplices(int fd, std::int64_t size, const std::vector<Splice>& splices,
                  const std::string& path)
{
    struct stat status {
    };
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash);
    if (fstat(fd, &status) != 0)
        return false;
    // Named after the message, so that what a crash leaves is swept with its queue entry.
    const std::string temp = KVTGetTempFileName(folder.c_str(), (BaseName(path) + ".new-").c_str());
    if (temp.empty())
        return false;
    FileWriter out(temp, "wb");
    const bool written = out.IsOpen() && WriteSpliced(fd, size, splices, &out);
    const bool closed = out.Close();
    if (written && closed && chmod(temp.c_str(), status.st_mode & 07777) == 0 &&
        Files().Rename(temp.c_str(), path.c_str()))
        return true;
    (void)Files().Remove(temp.c_str());  // the failure that is reported came before
    return false;
}

}  // namespace dl
