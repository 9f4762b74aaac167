// Delivery of an accepted posting to a list's immediate members, through one new entry on the
// output channel.
#pragma once

#include <string>

#include "requests/incoming.h"

namespace dl
{

// 0 when the posting's recipient is done (delivered, nobody to deliver to, or answered to the
// sender); else the number of the place at which the queue or memory failed, and the service must
// stop with the message on its channel. Logs every step.
[[nodiscard]] long DeliverPosting(const Incoming& message, const std::string& list,
                                  const std::string& channel);

}  // namespace dl
