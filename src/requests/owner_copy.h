// Owner copies: what a list's owner ought to see is sent to the owner, with an explanation and the
// message itself attached unchanged.
#pragma once

#include <string>

#include "requests/incoming.h"

namespace dl
{

// Why the owner gets a copy.
inline constexpr int kSubscription = 0;
inline constexpr int kUnsubscription = 1;
inline constexpr int kClosedListPosting = 2;
inline constexpr int kSubscriptionConfirmed = 3;
inline constexpr int kUnsubscriptionConfirmed = 4;
inline constexpr int kBlockedMember = 5;
inline constexpr int kArchiveRegistration = 6;
inline constexpr int kForTheOwner = -1;  // and any other value

// `alias` is the list's owner alias, "<local>-owner@<domain>". 0 when the copy was submitted; -1
// when not: the list has no owner, a file cannot be read or written, or the queue failed (logged at
// level 1).
[[nodiscard]] int ForwardToOwner(const std::string& alias, const Incoming& message,
                                 const std::string& channel, int reason);

}  // namespace dl
