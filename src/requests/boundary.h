// MIME boundaries (RFC 2046, 5.1.1) that are made from the time in seconds.
//
// Anybody can guess the second at which a message is made and put its boundary into a posting,
// whose end that would be. So it is the first second from now on whose boundary none of the
// enclosed files holds.
#pragma once

#include <string>
#include <vector>

namespace dl
{

// `format` is a text and "%08X" or "%08x" at its end. A file that cannot be read counts as empty:
// copying it will fail as well.
[[nodiscard]] std::string FreeBoundary(const char* format,
                                       const std::vector<std::string>& enclosed);

}  // namespace dl
