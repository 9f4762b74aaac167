#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "platform/mime/mime.h"

namespace dl
{

namespace
{

int DaysInMonth(int year, int month)
{
    constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : kDays[month - 1];
}

// 0 is Sunday; of the Gregorian calendar.
int Weekday(int year, int month, int day)
{
    constexpr int kShift[] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
    const int y = month < 3 ? year - 1 : year;
    return (y + y / 4 - y / 100 + y / 400 + kShift[month - 1] + day) % 7;
}

}  // namespace

// Names are English whatever the locale: the text is for mail readers. Values out of range give the
// nearest that the grammar allows, so that the header is always a date.
std::string UTC2rfc(const DateRecord& date)
{
    constexpr const char* kDayNames[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    constexpr const char* kMonthNames[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const int year = std::clamp(date.year, 1900, 9999);
    const int month = std::clamp(date.month, 1, 12);
    const int day = std::clamp(date.day, 1, DaysInMonth(year, month));
    const int zone = std::clamp(date.zone_minutes, -1439, 1439);
    char text[64];
    std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d %c%02d%02d",
                  kDayNames[Weekday(year, month, day)], day, kMonthNames[month - 1], year,
                  std::clamp(date.hour, 0, 23), std::clamp(date.minute, 0, 59),
                  std::clamp(date.second, 0, 60), zone < 0 ? '-' : '+', std::abs(zone) / 60,
                  std::abs(zone) % 60);
    return text;
}

}  // namespace dl
