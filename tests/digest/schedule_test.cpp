// When digests go out, and what the schedule leaves in "digest.dt".

#include "digest/digest_schedule.h"
#include "tests/support/site.h"

namespace dl::testing
{
namespace
{

constexpr char kZone[] = "CET-1CEST,M3.5.0,M10.5.0/3";

std::time_t Local(int year, int month, int day, int hour, int minute, int second = 0)
{
    std::tm date{};
    date.tm_year = year - 1900;
    date.tm_mon = month - 1;
    date.tm_mday = day;
    date.tm_hour = hour;
    date.tm_min = minute;
    date.tm_sec = second;
    date.tm_isdst = -1;
    return std::mktime(&date);
}

class Schedule : public Site
{
 protected:
    void SetUp() override { SetZone(kZone); }
    void Use(const std::string& attributes)
    {
        ForgetLists();
        AddList("garden", attributes + "listmember: Digest;dora@example.com\n");
        Start();
    }
    void Due(const std::string& text)
    {
        Write("data/" + std::string(kGarden) + "/digest/digest.dt", text);
        Write("data/" + std::string(kGarden) + "/digest/00000001.msg", "Subject: x\r\n\r\ny\r\n");
    }
    [[nodiscard]] std::string Stored() const
    {
        return ReadFile(Path("data/" + std::string(kGarden) + "/digest/digest.dt"));
    }
};

TEST_F(Schedule, SendsWhatIsDueAndMovesOn)
{
    constexpr char kDaily[] = "DigestDeliverTime: 23:59\n";
    constexpr char kMonday[] = "DigestDeliverTime: 8:00\nfrequency: weekly\nwhichday: 1\n";
    constexpr char kLast[] = "DigestDeliverTime: 8:00\nfrequency: monthly\nwhichday: 31\n";
    const struct {
        const char *name, *list;
        std::time_t now;
        std::string stored;
        bool sent;
        std::time_t next;
    } kRows[] = {
        {"daily, half a minute late", kDaily, Local(2004, 11, 9, 23, 59, 30),
         std::to_string(Local(2004, 11, 9, 23, 59)), true, Local(2004, 11, 10, 23, 59)},
        {"a second early", kDaily, Local(2004, 11, 9, 23, 58, 59),
         std::to_string(Local(2004, 11, 9, 23, 59)), false, Local(2004, 11, 9, 23, 59)},
        {"down for a week: once", kDaily, Local(2004, 11, 9, 12, 0),
         std::to_string(Local(2004, 11, 2, 23, 59)), true, Local(2004, 11, 10, 23, 59)},
        {"into daylight saving", kMonday, Local(2005, 3, 21, 8, 0),
         std::to_string(Local(2005, 3, 21, 8, 0)), true, Local(2005, 3, 28, 8, 0)},
        {"out of daylight saving", kMonday, Local(2005, 10, 24, 8, 0),
         std::to_string(Local(2005, 10, 24, 8, 0)), true, Local(2005, 10, 31, 8, 0)},
        {"the 31st in February of a leap year is the 28th", kLast, Local(2004, 1, 31, 8, 0),
         std::to_string(Local(2004, 1, 31, 8, 0)), true, Local(2004, 2, 28, 8, 0)},
        {"the 31st in April is the 30th", kLast, Local(2005, 3, 31, 8, 0),
         std::to_string(Local(2005, 3, 31, 8, 0)), true, Local(2005, 4, 30, 8, 0)},
        {"brought forward from monthly to daily", kDaily, Local(2004, 11, 9, 12, 0),
         std::to_string(Local(2004, 12, 24, 8, 0)), false, Local(2004, 11, 10, 23, 59)},
        {"the clock jumped back by a day", kDaily, Local(2004, 11, 8, 23, 59, 10),
         std::to_string(Local(2004, 11, 10, 23, 59)), false, Local(2004, 11, 9, 23, 59)},
        {"no number", kDaily, Local(2004, 11, 9, 12, 0), "", true, Local(2004, 11, 10, 23, 59)},
        {"junk", kDaily, Local(2004, 11, 9, 12, 0), "soon", true, Local(2004, 11, 10, 23, 59)},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        Use(row.list);
        clock.now = row.now;
        Due(row.stored);
        RunDigestSchedule("dlout");
        EXPECT_EQ(On().size(), row.sent ? 1U : 0U);
        EXPECT_EQ(std::atol(Stored().c_str()), row.next);
        RunDigestSchedule("dlout");
        EXPECT_EQ(On().size(), row.sent ? 1U : 0U) << "not twice";
    }
}

TEST_F(Schedule, SaysWhatItDoes)
{
    Use("DigestDeliverTime: 8:00\nUseMimeDigest: NO\n");
    clock.now = Local(2004, 11, 9, 8, 0);
    Due("1");
    RunDigestSchedule("dlout");
    const std::string text = Log();
    EXPECT_EQ(
        text.find("6 Time to send message digest for mailing list (garden@lists.example.org)\n"),
        0U);
    EXPECT_NE(text.find("6 Next message digest will be sent on Wed Nov 10 08:00:00 2004\n"),
              std::string::npos);
    EXPECT_EQ(On().at(0).Header("Mime-version"), "") << "the plain one";
}

TEST_F(Schedule, ListWithoutFileGetsNoDigestAndAFailedOneWaits)
{
    Use("DigestDeliverTime: 8:00\n");
    clock.now = Local(2004, 11, 9, 12, 0);
    Due("1");
    std::filesystem::remove(Path("data/" + std::string(kGarden) + "/digest/digest.dt"));
    RunDigestSchedule("dlout");
    EXPECT_EQ(Log(), "");
    Due("1");
    queue->FailNext(QueueCall::kCreate);
    log.ExpectError("Unable to create a new entry in Message Queue");
    RunDigestSchedule("dlout");
    EXPECT_EQ(std::atol(Stored().c_str()), Local(2004, 11, 10, 8, 0)) << "the schedule goes on";
    clock.now = Local(2004, 11, 10, 8, 0);
    RunDigestSchedule("dlout");
    EXPECT_EQ(On().size(), 1U) << "with the posting of the day before";
}

}  // namespace
}  // namespace dl::testing
