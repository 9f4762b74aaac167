// printf into a string, for texts that are kept as formats.
#pragma once

#include <cstdarg>
#include <string>

namespace dl
{

// The formatted text, whatever its length; empty when the format is broken.
[[nodiscard]] std::string FormatText(const char* format, ...) __attribute__((format(printf, 1, 2)));
[[nodiscard]] std::string FormatTextList(const char* format, va_list args)
    __attribute__((format(printf, 1, 0)));

}  // namespace dl
