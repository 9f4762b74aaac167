// Delivery of an accepted posting to a list's immediate members, through one new entry on the
// output channel.
#pragma once

#include <string>

#include "dispatch/message_work.h"

namespace dl
{

// 0 when the posting's recipient is done (delivered, nobody to deliver to, or answered to the
// sender); else the number of the place at which the queue or memory failed, and the service must
// stop with the message on its channel. Logs every step.
[[nodiscard]] long DeliverPosting(const Handling& it, const std::string& list);

// Whether that place means that memory ran out for the posting's envelope.
[[nodiscard]] bool IsMemoryPlace(long place);

}  // namespace dl
