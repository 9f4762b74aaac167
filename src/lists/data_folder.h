// The folders in which a list's digest, archive and pending confirmations lie.
#pragma once

#include <string>

namespace dl
{

// The name of the list's folder below the data path: `list` as the mail spelled it or, when there
// is no such folder, as the directory spells it. Mail to "Garden@" is the list's, too. Main thread.
[[nodiscard]] std::string DataFolderName(const std::string& list);

}  // namespace dl
