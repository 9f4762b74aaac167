#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/files/files.h"
#include "platform/files/machine_fault.h"
#include "platform/mime/disclaimer_private.h"

namespace dl
{

namespace
{

constexpr std::int64_t kBlock = 65536;

bool CopyRange(const RawFile& file, std::int64_t from, std::int64_t to, FileWriter* out)
{
    std::string block;
    for (; from < to; from += kBlock)
        if (!file.ReadAt(from, std::min(to, from + kBlock), &block) || !out->Write(block))
            return false;
    return true;
}

bool WriteSpliced(const RawFile& file, const std::vector<Splice>& splices, FileWriter* out)
{
    std::int64_t done = 0;
    for (const Splice& splice : splices) {
        if (splice.from < done || !CopyRange(file, done, splice.from, out) ||
            !out->Write(splice.bytes))
            return false;
        done = splice.to;
    }
    return CopyRange(file, done, file.Size(), out);
}

}  // namespace

// Nothing is synced: the file belongs to a queue entry that is not closed, and closing it syncs
// file and folder.
bool ApplySplices(const RawFile& file, const std::vector<Splice>& splices, const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash);
    // Named after the message, so that what a crash leaves is swept with its queue entry.
    const std::string temp = KVTGetTempFileName(folder.c_str(), (BaseName(path) + ".new-").c_str());
    if (temp.empty())
        return false;
    FileWriter out(temp, "wb");
    const bool written = out.IsOpen() && WriteSpliced(file, splices, &out);
    const bool closed = out.Close();
    if (written && closed) {
        if (chmod(temp.c_str(), file.Mode()) == 0 && Files().Rename(temp.c_str(), path.c_str()))
            return true;
        NoteMachineFault(errno);
    }
    (void)Files().Remove(temp.c_str());  // the failure that is reported came before
    return false;
}

}  // namespace dl
