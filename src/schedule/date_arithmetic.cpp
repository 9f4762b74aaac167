#include "schedule/date_arithmetic.h"

namespace dl
{
namespace
{

constexpr int kMonthLength[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

std::tm LocalAt(std::time_t now, int hour, int minute)
{
    std::tm date{};
    localtime_r(&now, &date);
    date.tm_hour = hour;
    date.tm_min = minute;
    date.tm_sec = 0;
    date.tm_isdst = -1;  // the target day's own: the hour of the clock on the wall is meant
    return date;
}

int DaysToWeekday(int today, int weekday)
{
    return weekday > today ? weekday - today : 7 - (today - weekday);
}

// The broken-down year is handed over as the C library counts it, from 1900, so February keeps 28
// days.
void SetMonthDay(std::tm* date, int month_day)
{
    if (date->tm_mon == 1 && IsLeapYear(date->tm_year) && month_day > 29)
        date->tm_mday = 29;
    else if (month_day > kMonthLength[date->tm_mon])
        date->tm_mday = kMonthLength[date->tm_mon];
    else
        date->tm_mday = month_day;
}

}  // namespace

bool IsLeapYear(int year)
{
    const int full = year <= 99 ? year + 1900 : year;
    return full % 4 == 0 && full % 400 == 0;
}

std::time_t nexttime(std::time_t now, int hour, int minute, int frequency, int weekday,
                     int month_day)
{
    std::tm date = LocalAt(now, hour, minute);
    if (frequency == kDaily) {
        date.tm_mday += 1;
    } else if (frequency == kWeekly) {
        date.tm_mday += DaysToWeekday(date.tm_wday, weekday);
    } else if (frequency == kMonthly) {
        if (++date.tm_mon == 12) {
            date.tm_mon = 0;
            ++date.tm_year;
        }
        SetMonthDay(&date, month_day);
    }
    return std::mktime(&date);
}

std::time_t adjusttime(std::time_t now, int hour, int minute, int frequency, int weekday,
                       int month_day)
{
    std::tm date = LocalAt(now, hour, minute);
    if (frequency == kWeekly) {
        date.tm_mday += weekday == date.tm_wday ? 0 : DaysToWeekday(date.tm_wday, weekday);
    } else if (frequency == kMonthly) {
        SetMonthDay(&date, month_day);
    }
    return std::mktime(&date);
}

}  // namespace dl
