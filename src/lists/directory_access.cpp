#include "lists/directory_access.h"

#include <cstdlib>

#include "platform/config/config.h"
#include "platform/log/log.h"

namespace dl
{

DirectoryLogin ReadDirectoryLogin(const char* file)
{
    const auto read = [file](const char* key, std::size_t size) {
        return GetPrivateProfileString("Ldap", key, "", size, file);
    };
    const int port = std::atoi(read("Port", 16).c_str());
    return {read("HostName", 128), port == 0 ? 389 : port, read("Username", 64),
            read("Password", 64)};
}

bool OpenDirectory(ldapClient* client)
{
    const DirectoryLogin login = ReadDirectoryLogin(kMainConfig);
    if (client->ldapClientConnect(login.host, login.port) != 0) {
        DlLog(1, "Could not connect to Directory Server");
        return false;
    }
    if (client->ldapClientBind(login.user, login.password) != 0) {
        DlLog(1, "Could not bind to Directory Server");
        return false;
    }
    return true;
}

std::string ListEntryName(const std::string& list)
{
    std::string name = "mail=" + EscapeNameValue(list);
    std::string domain = list.substr(list.rfind('@') + 1);
    while (!domain.empty()) {
        const std::size_t dot = domain.find('.');
        name += ",dc=" + EscapeNameValue(domain.substr(0, dot));
        domain = dot == std::string::npos ? "" : domain.substr(dot + 1);
    }
    return name;
}

}  // namespace dl
