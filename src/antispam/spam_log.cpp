#include "antispam/spam_log.h"

#include <algorithm>
#include <cstdarg>

#include "platform/log/log.h"

namespace dl
{
namespace
{

int Log(int level, const char* tag, const char* format, va_list args)
{
    constexpr std::size_t kSize = 8192;
    return LogFormatted(std::min(level, 6), tag, kSize, format, args);
}

}  // namespace

int KestruneLog(int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = Log(level, "Kestrune", format, args);
    va_end(args);
    return length;
}

int BayesLog(int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = Log(level, "Bayesian filter", format, args);
    va_end(args);
    return length;
}

}  // namespace dl
