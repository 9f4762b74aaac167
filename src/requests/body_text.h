// The text of the one body part that a request is read from.
//
// A single text/plain message gives its body; multipart/mixed its first text/plain part;
// multipart/alternative its first part, when that is text/plain (behind an ordinary first part the
// walk stops); everything else the raw body of the part looked at last. Transfer encodings are
// undone. Nothing here logs.
#pragma once

#include <string>

namespace dl
{

// Name of a new temporary file, which the caller hands to MimeFreeFile; empty when message or body
// cannot be read.
[[nodiscard]] std::string ExtractBodyText(unsigned long id);

}  // namespace dl
