// The moments at which a scheduled job falls due. Pure functions of the time zone (TZ) and their
// arguments.
//
// Frequencies: 0 daily, 1 weekly, 2 monthly; for any other value the result is `now` with the given
// hour and minute. `weekday` counts 0 Sunday to 6 Saturday (7 is the Sunday after today),
// `month_day` 1 to 31. Times are seconds since 1970-01-01 UTC; hour and minute are local, whatever
// daylight saving does in between. Any thread, as long as none changes TZ: the archive worker loads
// lists, too.
#pragma once

#include <ctime>

namespace dl
{

inline constexpr int kDaily = 0;
inline constexpr int kWeekly = 1;
inline constexpr int kMonthly = 2;

// The next moment, strictly after today's date: tomorrow, the weekday after today, the day of the
// next month.
[[nodiscard]] std::time_t nexttime(std::time_t now, int hour, int minute, int frequency,
                                   int weekday, int month_day);

// The first moment of a new schedule, counted from today's date; it may lie earlier today or this
// month, and is then due at once.
[[nodiscard]] std::time_t adjusttime(std::time_t now, int hour, int minute, int frequency,
                                     int weekday, int month_day);

// Years of 99 or less count from 1900. A year divisible by 4 is a leap year only when 400 divides
// it as well.
[[nodiscard]] bool IsLeapYear(int year);

}  // namespace dl
