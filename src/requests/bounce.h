// Bounces: a refused message goes back to its sender with the reason.
//
// From the postmaster of this host, with the null reverse-path, so that it causes no bounce of its
// own (RFC 5321, 4.5.5); what came from the null reverse-path goes to the postmaster. The refused
// message is attached unchanged.
#pragma once

#include <string>

#include "requests/incoming.h"

namespace dl
{

// `reason` is one or more lines, each ended by CRLF. `flag` sets the flag word 0x80 of the
// envelope's sender. 0 when the bounce was submitted (logged at level 3), -1 when not; only
// failures of the submission are logged.
int BounceToSender(const Incoming& message, const std::string& reason, const std::string& channel,
                   bool flag);

}  // namespace dl
