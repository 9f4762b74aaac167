// The content scan of a posting: what its spam marks mean to the list that it is for.
//
// Runs after blocked members have been refused and before the list's mode is looked at. Logs what
// becomes of the posting; the bounce to its sender is the checker's business.
#pragma once

#include <string>

#include "requests/incoming.h"

namespace dl
{

enum class ScanResult {
    kPassed,  // the posting goes on; so does one that cannot be judged
    kSpam,    // it was discarded or bounced: the recipient is done
    kWait,    // what decides is in a directory that does not answer
};
[[nodiscard]] ScanResult ScanContent(const Incoming& message, const std::string& list);

}  // namespace dl
