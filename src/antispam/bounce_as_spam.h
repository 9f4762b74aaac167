// Returning spam to its sender.
#pragma once

#include <string>

namespace dl
{

// Reports the message file `path` back to `sender`, as refused by the address `refused`. False when
// that failed.
[[nodiscard]] bool BounceAsSpam(const std::string& sender, const std::string& refused,
                                const std::string& path, const std::string& reason);

}  // namespace dl
