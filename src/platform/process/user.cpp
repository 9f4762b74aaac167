#include "platform/process/user.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace dl
{
namespace
{

bool Become(const std::string& who, uid_t number, gid_t group, const char* name, std::string* error)
{
    const bool groups = name ? initgroups(name, group) == 0 : setgroups(1, &group) == 0;
    if (!groups || setgid(group) != 0 || setuid(number) != 0) {
        *error = who + ": " + std::generic_category().message(errno);
        return false;
    }
    if (number != 0 && setuid(0) == 0) {
        *error = who + ": the process is still root";
        return false;
    }
    return true;
}

}  // namespace

uid_t UserNumber(const std::string& user)
{
    const passwd* entry = getpwnam(user.c_str());
    return entry ? entry->pw_uid : static_cast<uid_t>(-1);
}

bool BecomeUser(const std::string& user, std::string* error)
{
    const passwd* entry = getpwnam(user.c_str());
    if (entry)
        return Become(user, entry->pw_uid, entry->pw_gid, user.c_str(), error);
    *error = user + ": there is no such user";
    return false;
}

bool BecomeOwnerOf(const std::string& path, std::string* error)
{
    struct stat status {
    };
    if (geteuid() != 0 || stat(path.c_str(), &status) != 0 || status.st_uid == 0)
        return true;
    const passwd* entry = getpwuid(status.st_uid);
    if (!entry)
        return Become(path, status.st_uid, status.st_gid, nullptr, error);
    const std::string name = entry->pw_name;
    return Become(name, entry->pw_uid, entry->pw_gid, name.c_str(), error);
}

}  // namespace dl
