#include "antispam/bayes_log.h"

#include <cstdarg>

#include "platform/log/log.h"

namespace dl
{
namespace
{

constexpr std::size_t kSize = 8192;

}  // namespace

int BayesLog(int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = LogFormatted(level > 6 ? 6 : level, "Bayesian filter", kSize, format, args);
    va_end(args);
    return length;
}

}  // namespace dl
