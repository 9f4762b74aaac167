// Notifications: the requester is told what became of a subscription, an unsubscription or an
// archive registration.
//
// Each is a plain text from the list's request address. 0 when it was submitted (logged at level
// 6), -1 when not.
#pragma once

#include <string>

#include "requests/incoming.h"

namespace dl
{

// `outcome`: 1 added, 2 already a member, 0 forwarded to the owner, -1 error; any other code gives
// a message without text. A failed write of the first two header lines counts as sent.
[[nodiscard]] int NotifySubscription(const Incoming& message, const std::string& list,
                                     const std::string& channel, int outcome);
// `outcome`: 0 removed, any other an error.
[[nodiscard]] int NotifyUnsubscription(const Incoming& message, const std::string& list,
                                       const std::string& channel, int outcome);
// `outcome`: 0 registered, any other an error. What the queue answers to the submission does not
// count.
[[nodiscard]] int NotifyArchiveRegistration(const Incoming& message, const std::string& list,
                                            const std::string& channel, int outcome);

}  // namespace dl
