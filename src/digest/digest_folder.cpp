#include "digest/digest_folder.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "platform/config/data_path.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "platform/log/log.h"

namespace dl
{
namespace
{

std::string FolderPath(const std::string& list)
{
    const std::string base = DataPath();
    if (base.empty())
        return FormatText(".%c%s%cdigest", '/', list.c_str(), '/');
    return FormatText("%s%c%s%cdigest", base.c_str(), '/', list.c_str(), '/');
}

void Remove(const std::string& path)
{
    if (!Files().Remove(path.c_str()) && errno != ENOENT)
        DlLog(1, "Unable to remove file: %s", path.c_str());
}

}  // namespace

DigestFolder::DigestFolder(const std::string& list) : path_(FolderPath(list))
{
    std::error_code error;
    std::filesystem::directory_iterator entry(path_, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.find(".msg") != std::string::npos)
            postings_.push_back(path_ + "/" + name);
    }
    std::sort(postings_.begin(), postings_.end());
}

void DigestFolder::Empty() const
{
    for (const std::string& posting : postings_)
        Remove(posting);
    Remove(Topics());
}

}  // namespace dl
