// Log lines of the spam checks, tag "Kestrune"; a level above 6 is logged as 6.
#pragma once

namespace dl
{

int KestruneLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace dl
