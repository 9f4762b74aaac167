// Opening the directory with the settings of section "Ldap" of "qvms.conf", read at every call.
#pragma once

#include <string>

#include "platform/directory/directory.h"

namespace dl
{

struct DirectoryLogin {
    std::string host;
    int port = 389;
    std::string user;
    std::string password;
};

// From `file`; a port that is missing, 0 or no number is 389.
[[nodiscard]] DirectoryLogin ReadDirectoryLogin(const char* file);

// Connects and binds. False when either fails, which is logged at level 1.
[[nodiscard]] bool OpenDirectory(ldapClient* client);

// The name of a list's entry (RFC 4514): "mail=<list>" and one "dc" for each label of its domain.
[[nodiscard]] std::string ListEntryName(const std::string& list);

}  // namespace dl
