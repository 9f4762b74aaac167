// The plain-text messages to a requester, notifications and confirmation requests: what their
// headers share.
#pragma once

#include <string>

#include "requests/generated_message.h"

namespace dl
{

inline constexpr std::size_t kTextBuffer = 1024;  // pieces in which a list's text file is copied

// From, Reply-To, To, Mime-version and Content-type; the subject line, which ends the header block,
// is the generator's.
[[nodiscard]] bool WriteTextHeaders(GeneratedMessage& message, const std::string& from,
                                    const std::string& to);
// Appends a list's text file; a null path or a file that cannot be read is passed over. False when
// a write failed.
[[nodiscard]] bool AppendTextFile(GeneratedMessage& message, const char* path);

}  // namespace dl
