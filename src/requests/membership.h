// Membership in the directory: a value of `listmember` is added to, or deleted from, a list's
// entry.
//
// Each call has a directory connection of its own and ends with a copy of the request to the owner.
// The list cache is not touched: a change is seen at the next refresh. Logs what it does; a
// connection that cannot be made, or that ends before the directory has answered, is logged at
// level 1 and gives -1.
#pragma once

#include <string>

#include "requests/confirmations.h"
#include "requests/incoming.h"

namespace dl
{

// 2: the address is a member already, in any mode; 1: the change was asked for (a refusal is only
// logged); 0: the list's owner decides, and got the request; -1: no directory, or no owner
// copy. With `pending`, a member whom an earlier attempt of the same confirmation has added counts
// as added.
[[nodiscard]] int AddListMember(const Incoming& message, const std::string& member,
                                const std::string& list, const std::string& channel, bool digest,
                                PendingConfirmation* pending = nullptr);
// 0 also when the address was no member; -1 as above.
[[nodiscard]] int RemoveListMember(const Incoming& message, const std::string& member,
                                   const std::string& list, const std::string& channel);

}  // namespace dl
