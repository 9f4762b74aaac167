// Blacklist records: the parsing of their values, and when they are read.

#include "antispam/rbl_defaults.h"

#include "tests/antispam/spam_fixture.h"

namespace dl::testing
{
namespace
{

TEST(RblRecord, Values)
{
    for (const auto& row : ReadTable("tables/spam.txt", "blacklist records")) {
        const auto host = ParseRblHost(row.at(0), "DL");
        EXPECT_EQ(host ? host->name + " " + std::to_string(host->mode) + " " +
                             std::to_string(host->action)
                       : "none",
                  row.at(1))
            << row.at(0);
    }
}

class RblDefaultsTest : public SpamFixture
{
 protected:
    std::string Hosts()
    {
        std::string names;
        for (const char* host = defaults.FirstHost(); host; host = defaults.NextHost())
            names += std::string(host) + " ";
        return names;
    }
    RblDefaults defaults;
};

TEST_F(RblDefaultsTest, LoadsLogsAndAnswers)
{
    Records({"a.example,P,I", "b.example,C,D", "c.example,P,I,DL:F", "d.example,P,I,DL:B",
             "B.EXAMPLE,P,I", ",P,D"});
    defaults.ReloadWhenDue("DL");
    EXPECT_EQ(log.Texts(5), (std::vector<std::string>{
                                "5 Loading RBL default settings",
                                "5 RBL Host: a.example; mode: 0, action: IGNORE",
                                "5 RBL Host: b.example; mode: 1, action: DISCARD",
                                "5 RBL Host: c.example; mode: 0, action: FILE",
                                "5 RBL Host: d.example; mode: 0, action: BOUNCE",
                                "5 RBL Host: B.EXAMPLE; mode: 0, action: IGNORE",
                                "5 Done",
                            }));
    EXPECT_EQ(log.Lines().front().module, "Kestrune");
    EXPECT_EQ(Hosts(), "B.EXAMPLE d.example c.example b.example a.example ");
    EXPECT_EQ(defaults.Action("D.example"), kSpamBounce);
    EXPECT_EQ(defaults.Action("b.example"), kSpamIgnore) << "the later value wins";
    EXPECT_EQ(defaults.Action("unknown.example"), kSpamDiscard);
    EXPECT_EQ(defaults.Mode("b.example"), 0);
    EXPECT_EQ(defaults.Mode("unknown.example"), 0);
    EXPECT_TRUE(defaults.AnyWithMode0());
    Records({"a.example,C,I"});
    clock.now += 15 * 60;
    defaults.ReloadWhenDue("DL");
    EXPECT_EQ(Hosts(), "a.example ");
    EXPECT_FALSE(defaults.AnyWithMode0());
    EXPECT_EQ(defaults.Mode("a.example"), 1);
}

TEST_F(RblDefaultsTest, OnlyTheRightRecordCounts)
{
    Write("conf/directory.ldif",
          "dn: cn=PreProcessor,o=a\nobjectClass: qvlist\ncn: PreProcessor\nmail: a@b.c\n"
          "x-kvtblaction: wrong1,P,I\n\n"
          "dn: cn=Other,o=a\nobjectClass: qvconfig\ncn: Other\nx-kvtblaction: wrong2,P,I\n\n"
          "dn: cn=preprocessor,o=b\nobjectClass: QVCONFIG\ncn: preprocessor\n"
          "x-kvtblaction: right,P,I\n\n");
    defaults.ReloadWhenDue("DL");
    EXPECT_EQ(Hosts(), "right ");
}

TEST_F(RblDefaultsTest, ReloadsWhenTheIntervalHasPassed)
{
    const struct {
        const char* interval;
        int seconds;
        bool again;
    } rows[] = {{"", 899, false}, {"", 900, true}, {"2", 119, false},
                {"2", 120, true}, {"0", 0, true},  {"2", -1, true}};  // the clock was set back
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.interval) + " " + std::to_string(row.seconds));
        Gateway(*row.interval ? std::string("[Kestrune]\nReloadInterval = ") + row.interval : "");
        RblDefaults fresh;
        fresh.ReloadWhenDue("DL");
        const int before = directory.Made(DirectoryCall::kSearch);
        clock.now += row.seconds;
        fresh.ReloadWhenDue("DL");
        EXPECT_EQ(directory.Made(DirectoryCall::kSearch) - before, row.again ? 1 : 0);
    }
}

// Also the first of all.
TEST_F(RblDefaultsTest, AFailedLoadForgetsTheOldOnesAndIsTriedAgainAtOnce)
{
    Records({"a.example,P,I"});
    log.ExpectError("Unable to connect to LDAP server");
    log.ExpectError("Unable to read the RBL default settings");
    for (const DirectoryCall call :
         {DirectoryCall::kBind, DirectoryCall::kConnect, DirectoryCall::kSearch}) {
        directory.FailNext(call);
        defaults.ReloadWhenDue("DL");
        EXPECT_EQ(Hosts(), "");
        EXPECT_TRUE(defaults.LoadFailed());
        EXPECT_EQ(defaults.Action("a.example"), kSpamDiscard);
        defaults.ReloadWhenDue("DL");
        EXPECT_EQ(Hosts(), "a.example ");
        EXPECT_FALSE(defaults.LoadFailed());
        clock.now += 15 * 60;
    }
}

}  // namespace
}  // namespace dl::testing
