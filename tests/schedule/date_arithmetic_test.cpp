#include "schedule/date_arithmetic.h"

#include <iterator>
#include <utility>

#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

constexpr char kBerlin[] = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr int kDay = 86'400;

std::time_t At(const std::string& local)
{
    std::tm date{};
    EXPECT_NE(strptime(local.c_str(), "%Y-%m-%d %H:%M:%S", &date), nullptr) << local;
    date.tm_isdst = -1;
    return std::mktime(&date);
}

std::string Local(std::time_t moment)
{
    std::tm date{};
    localtime_r(&moment, &date);
    char text[80];
    (void)std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", &date);  // it has room
    return text;
}

class DateArithmetic : public Fixture
{
};

struct Row {
    const char *name, *now;
    int hour, minute, frequency, weekday, month_day;
    const char *first, *next;
};

void Check(const Row* begin, const Row* end)
{
    for (const Row* row = begin; row != end; ++row) {
        SCOPED_TRACE(row->name);
        const std::time_t now = At(row->now);
        EXPECT_EQ(Local(adjusttime(now, row->hour, row->minute, row->frequency, row->weekday,
                                   row->month_day)),
                  row->first);
        EXPECT_EQ(Local(nexttime(now, row->hour, row->minute, row->frequency, row->weekday,
                                 row->month_day)),
                  row->next);
    }
}

// 2004-11-09 is a Tuesday.
TEST_F(DateArithmetic, FirstAndNextMoment)
{
    const Row rows[] = {
        {"daily, later today", "2004-11-09 11:33:20", 12, 0, kDaily, 0, 0,
         "2004-11-09 12:00:00 UTC", "2004-11-10 12:00:00 UTC"},
        {"daily, earlier today: due at once", "2004-11-09 11:33:20", 6, 30, kDaily, 0, 0,
         "2004-11-09 06:30:00 UTC", "2004-11-10 06:30:00 UTC"},
        {"daily, sent at 23:59:30 of the year's last day", "2004-12-31 23:59:30", 23, 59, kDaily, 0,
         0, "2004-12-31 23:59:00 UTC", "2005-01-01 23:59:00 UTC"},

        {"weekly, the same weekday", "2004-11-09 11:33:20", 8, 5, kWeekly, 2, 0,
         "2004-11-09 08:05:00 UTC", "2004-11-16 08:05:00 UTC"},

        {"weekly, day 7 on a Tuesday is Sunday", "2004-11-09 11:33:20", 8, 5, kWeekly, 7, 0,
         "2004-11-14 08:05:00 UTC", "2004-11-14 08:05:00 UTC"},
        {"weekly, Sunday as 0 on a Sunday", "2004-11-14 11:33:20", 8, 5, kWeekly, 0, 0,
         "2004-11-14 08:05:00 UTC", "2004-11-21 08:05:00 UTC"},
        {"weekly, Sunday as 7 on a Sunday", "2004-11-14 11:33:20", 8, 5, kWeekly, 7, 0,
         "2004-11-21 08:05:00 UTC", "2004-11-21 08:05:00 UTC"},

        {"monthly, earlier this month: due at once", "2004-11-09 11:33:20", 6, 30, kMonthly, 1, 1,
         "2004-11-01 06:30:00 UTC", "2004-12-01 06:30:00 UTC"},
        {"monthly, the 31st in a month of 30 days", "2004-11-09 11:33:20", 6, 30, kMonthly, 31, 31,
         "2004-11-30 06:30:00 UTC", "2004-12-31 06:30:00 UTC"},

        {"monthly, December to January", "2004-12-10 11:33:20", 6, 30, kMonthly, 31, 31,
         "2004-12-31 06:30:00 UTC", "2005-01-31 06:30:00 UTC"},

        {"monthly, the 31st to a leap February", "2004-01-31 11:33:20", 6, 30, kMonthly, 31, 31,
         "2004-01-31 06:30:00 UTC", "2004-02-28 06:30:00 UTC"},

        // 400 years after 1900 counts as a leap year, but the calendar has no 29th then.
        {"monthly, the 31st to February 2300", "2300-01-10 11:33:20", 6, 30, kMonthly, 31, 31,
         "2300-01-31 06:30:00 UTC", "2300-03-01 06:30:00 UTC"},
        {"monthly, the 29th to February 2300", "2300-01-10 11:33:20", 6, 30, kMonthly, 29, 29,
         "2300-01-29 06:30:00 UTC", "2300-02-28 06:30:00 UTC"},
        {"no rhythm", "2004-11-09 11:33:20", 6, 30, 3, 5, 15, "2004-11-09 06:30:00 UTC",
         "2004-11-09 06:30:00 UTC"},

    };
    Check(std::begin(rows), std::end(rows));
}

// The hour on the wall is meant, whatever the clock was on the day of the computation.
TEST_F(DateArithmetic, DaylightSaving)
{
    SetZone(kBerlin);
    const Row rows[] = {
        {"daily into summer", "2004-03-27 12:00:00", 6, 30, kDaily, 0, 0, "2004-03-27 06:30:00 CET",
         "2004-03-28 06:30:00 CEST"},
        {"daily into winter", "2004-10-30 12:00:00", 6, 30, kDaily, 0, 0,
         "2004-10-30 06:30:00 CEST", "2004-10-31 06:30:00 CET"},

        {"monthly into summer", "2004-03-10 12:00:00", 7, 0, kMonthly, 15, 15,
         "2004-03-15 07:00:00 CET", "2004-04-15 07:00:00 CEST"},
        {"first moment before the change of that day", "2004-03-28 12:00:00", 1, 0, kDaily, 0, 0,
         "2004-03-28 01:00:00 CET", "2004-03-29 01:00:00 CEST"},

    };
    Check(std::begin(rows), std::end(rows));
}

// An hour that the change of the clock leaves out, or brings twice, neither stops a schedule nor
// skips a day.
TEST_F(DateArithmetic, EveryDayOfAYearOnceInAnHourThatMayNotExist)
{
    SetZone(kBerlin);
    std::time_t due = At("2004-01-01 02:30:00");
    for (int day = 1; day <= 366; ++day) {
        const std::string want = Local(At("2004-01-01 12:00:00") + day * kDay).substr(0, 10);
        due = nexttime(due, 2, 30, kDaily, 0, 0);
        const std::string got = Local(due);
        ASSERT_EQ(got.substr(0, 10), want);
        EXPECT_TRUE(want == "2004-03-28" || got.substr(11, 5) == "02:30") << got;
    }
}

TEST_F(DateArithmetic, LeapYears)
{
    const std::pair<int, bool> rows[] = {
        {0, false},    {96, false},  {99, false},   {100, false}, {104, false},
        {400, true},   {404, false}, {1900, false}, {2000, true}, {2004, false},
        {2100, false}, {2400, true}, {-300, true},  // 1600
    };
    for (const auto& [year, leap] : rows)
        EXPECT_EQ(IsLeapYear(year), leap) << year;
}

}  // namespace
}  // namespace dl::testing
