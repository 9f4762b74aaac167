// UTF-8 (RFC 3629).
#pragma once

#include <string_view>

namespace dl
{

// Whether all of `text` is well-formed UTF-8: no overlong form, no surrogate, nothing beyond
// U+10FFFF.
[[nodiscard]] bool IsUtf8(std::string_view text);

}  // namespace dl
