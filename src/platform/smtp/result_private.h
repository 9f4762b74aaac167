// What the session's files share: the relay's replies as results.
#pragma once

#include <string>

#include "platform/smtp/session.h"

namespace dl::smtp
{

// The text as one line, at most 500 bytes.
std::string LineOf(const std::string& text);
RecipientResult ResultOf(Outcome outcome, const Reply& reply);

}  // namespace dl::smtp
