// When digests go out, and what the schedule leaves in "digest.dt".

#include "digest/digest_schedule.h"

#include <map>

#include "tests/support/site.h"

namespace dl::testing
{
namespace
{

constexpr char kZone[] = "CET-1CEST,M3.5.0,M10.5.0/3";

std::time_t Local(const std::string& text)
{
    std::tm date{};
    EXPECT_NE(strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &date), nullptr) << text;
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

// The rows lie in tests/data/digest/schedule.txt.
TEST_F(Schedule, SendsWhatIsDueAndMovesOn)
{
    std::map<std::string, const char*> lists = {
        {"daily", "DigestDeliverTime: 23:59\n"},
        {"weekly", "DigestDeliverTime: 8:00\nfrequency: weekly\nwhichday: 1\n"},
        {"monthly", "DigestDeliverTime: 8:00\nfrequency: monthly\nwhichday: 31\n"}};
    for (const auto& row : ReadTable("digest/schedule.txt")) {
        SCOPED_TRACE(row.at(0));
        const std::string& stored = row.at(3);
        const std::size_t sent = row.at(4) == "yes" ? 1 : 0;
        Use(lists.at(row.at(1)));
        clock.now = Local(row.at(2));
        Due(stored.starts_with("20") ? std::to_string(Local(stored)) : stored);
        RunDigestSchedule("dlout");
        EXPECT_EQ(On().size(), sent);
        EXPECT_EQ(std::atol(Stored().c_str()), Local(row.at(5)));
        RunDigestSchedule("dlout");
        EXPECT_EQ(On().size(), sent) << "not twice";
    }
}

TEST_F(Schedule, SaysWhatItDoes)
{
    Use("DigestDeliverTime: 8:00\nUseMimeDigest: NO\n");
    clock.now = Local("2004-11-09 08:00:00");
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
    clock.now = Local("2004-11-09 12:00:00");
    Due("1");
    std::filesystem::remove(Path("data/" + std::string(kGarden) + "/digest/digest.dt"));
    RunDigestSchedule("dlout");
    EXPECT_EQ(Log(), "");
    Due("1");
    queue->FailNext(QueueCall::kCreate);
    log.ExpectError("Unable to create a new entry in Message Queue");
    RunDigestSchedule("dlout");
    EXPECT_EQ(std::atol(Stored().c_str()), Local("2004-11-10 08:00:00")) << "the schedule goes on";
    clock.now = Local("2004-11-10 08:00:00");
    RunDigestSchedule("dlout");
    EXPECT_EQ(On().size(), 1U) << "with the posting of the day before";
}

// Neither which list the sending looks at, nor a moment that cannot be kept, holds up the walk.
TEST_F(Schedule, ListThatStandsTwiceIsLookedAtTwice)
{
    Use("listmember: Digest;dora@example.com\n\ndn: "
        "mail=garden@lists.example.org,dc=b\nobjectClass: qvlist\n"
        "mail: garden@lists.example.org\n");
    Due("1");
    std::filesystem::remove(Path("data/" + std::string(kGarden) + "/digest/digest.dt"));
    std::filesystem::create_symlink("/dev/full",
                                    Path("data/" + std::string(kGarden) + "/digest/digest.dt"));
    queue->FailNth(QueueCall::kCreate, 1, 10);
    log.ExpectError("Unable to create a new entry in Message Queue");
    log.ExpectError("Unable to write file: ");
    RunDigestSchedule("dlout");
    EXPECT_EQ(queue->Calls(), "create create");
}

}  // namespace
}  // namespace dl::testing
