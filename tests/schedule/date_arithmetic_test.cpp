#include "schedule/date_arithmetic.h"

#include <sstream>
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

// The rows lie in tests/data/dates.txt; 2004-11-09 is a Tuesday. The hour on the wall is meant,
// whatever the clock was on the day of the computation. 400 years after 1900 counts as a leap year,
// but the calendar has no 29th then.
TEST_F(DateArithmetic, FirstAndNextMoment)
{
    for (const auto& row : ReadTable("dates.txt")) {
        SCOPED_TRACE(row.at(0));
        SetZone(row.at(1));
        const std::time_t now = At(row.at(2));
        std::istringstream numbers(row.at(3));
        int hour = 0, minute = 0, frequency = 0, weekday = 0, day = 0;
        ASSERT_TRUE(numbers >> hour >> minute >> frequency >> weekday >> day);
        EXPECT_EQ(Local(adjusttime(now, hour, minute, frequency, weekday, day)), row.at(4));
        EXPECT_EQ(Local(nexttime(now, hour, minute, frequency, weekday, day)), row.at(5));
    }
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
