// The content scan of a posting: what its spam marks mean to the list that it is for.
//
// Runs after blocked members have been refused and before the list's mode is looked at. Logs what
// becomes of the posting; the bounce to its sender is the checker's business.
#pragma once

#include <string>

#include "requests/incoming.h"

namespace dl
{

// True when the posting goes on. False when it was discarded or bounced as spam: the recipient is
// done. A posting that cannot be judged goes on.
[[nodiscard]] bool PassContentScan(const Incoming& message, const std::string& list);

}  // namespace dl
