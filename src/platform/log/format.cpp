#include "platform/log/format.h"

#include <cstdio>

namespace dl
{

std::string FormatText(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = FormatTextList(format, args);
    va_end(args);
    return text;
}

std::string FormatTextList(const char* format, va_list args)
{
    char small[512];
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(small, sizeof small, format, args);
    std::string text;
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof small) {
        text.assign(small, static_cast<std::size_t>(length));
    } else if (length >= 0) {
        text.resize(static_cast<std::size_t>(length) + 1);
        (void)std::vsnprintf(text.data(), text.size(), format, again);  // measured just now
        text.pop_back();
    }
    va_end(again);
    return text;
}

}  // namespace dl
