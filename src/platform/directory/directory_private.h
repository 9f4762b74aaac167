// What the two back ends share: settings and log line.
#pragma once

#include <string>

#include "platform/directory/directory.h"

namespace dl
{

struct DirectorySettings {
    std::string base;     // of a search with a null base; empty: the server's default
    std::string ca_file;  // empty: the system's list
    bool start_tls = false;
    int timeout_seconds = 5;
    int page_size = 500;
};

DirectorySettings ReadDirectorySettings();

// Tag "Directory". Passwords and member values are never passed.
void LogDirectory(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace dl
