// What is done with mail to a list's request address: a confirmation reply is carried out, a
// command asks for a confirmation or goes to the owner, anything else is bounced with an
// explanation.
#pragma once

#include <string>

#include "dispatch/message_work.h"

namespace dl
{

// 0 when the recipient is done; else the number of the place at which the service must stop with
// the message on its channel.
[[nodiscard]] long HandleRequest(const Handling& it, const std::string& request_address);

}  // namespace dl
