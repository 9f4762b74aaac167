// The pending files of confirmation requests: where they lie, and their expiry.

#include <dirent.h>
#include <sys/stat.h>

#include <memory>

#include "lists/data_folder.h"
#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/clock/clock.h"
#include "platform/config/config.h"
#include "platform/config/data_path.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "requests/confirmations.h"

namespace dl
{
namespace
{

constexpr int kDefaultDays = 3;
constexpr std::int64_t kDaySeconds = 86400;

struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
};

void ExpireFile(const std::string& path, std::time_t now, int days)
{
    struct stat status {
    };
    if (lstat(path.c_str(), &status) != 0 ||
        static_cast<std::int64_t>(now) - status.st_ctime <= days * kDaySeconds)
        return;
    DlLog(5, "%s is expired after %ld day(s)", path.c_str(), static_cast<long>(days));
    if (Files().Remove(path.c_str()))
        DlLog(5, "This file is removed");
    else
        DlLog(1, "Unable to remove file: %s", path.c_str());
}

}  // namespace

std::string ListFolder(const std::string& list)
{
    if (!IsSafeFolderName(list))
        return "";
    return FormatText("%s%c%s%c", DataPath().c_str(), '/', list.c_str(), '/');
}

std::string PendingPath(const std::string& list, std::uint32_t id)
{
    if (!IsSafeFolderName(list))
        return "";
    return FormatText("%s%c%s%c%08X.cnf", DataPath().c_str(), '/', DataFolderName(list).c_str(),
                      '/', id);
}

void ExpireConfirmations()
{
    const int configured =
        GetPrivateProfileInt("DlManager", "CNFTimeOut", kDefaultDays, kMainConfig);
    const int days = configured < 1 ? kDefaultDays : configured;
    dllist& cache = ListCache();
    for (const char* list = cache.GetFirstList(); list; list = cache.GetNextList()) {
        const std::time_t now = Now();
        const std::string path = ListFolder(list);
        const std::unique_ptr<DIR, CloseFolder> folder(opendir(path.c_str()));
        if (!folder)
            return;  // the remaining lists wait for the next sweep
        while (const dirent* entry = readdir(folder.get())) {
            const std::string name = entry->d_name;
            if (name.find(".cnf") != std::string::npos)
                ExpireFile(path + name, now, days);
        }
    }
}

}  // namespace dl
