// The root of the data folders: for each list a folder with its digest, its archive and its pending
// confirmations.
#pragma once

#include <string>

namespace dl
{

// "DlManager"/"DbPath" of "qvms.conf" without one trailing '/', read at each call; empty when not
// configured.
[[nodiscard]] std::string DataPath();

}  // namespace dl
