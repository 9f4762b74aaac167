// Blacklist records: the parsing of their values, and when they are read.

#include "antispam/rbl_defaults.h"

#include "tests/antispam/spam_fixture.h"

namespace dl::testing
{
namespace
{

TEST(RblRecord, Values)
{
    const struct {
        const char* name;
        const char* value;
        const char* want;  // host, mode, action; "-": no host
    } rows[] = {
        {"the usual", "rbl.example.org,P,D", "rbl.example.org 0 1"},
        {"small letters", "rbl,p,discard", "rbl 0 1"},
        {"another mode", "rbl,C,I", "rbl 1 0"},
        {"an unknown action is ignore", "rbl,P,B", "rbl 0 0"},
        {"host only", "rbl", "rbl 0 0"},
        {"an empty field ends the value", "rbl,P,,DL:B", "rbl 0 0"},
        {"override", "rbl,P,D,DL:I", "rbl 0 0"},
        {"each letter: file", "rbl,P,D,dl:f", "rbl 0 2"},
        {"each letter: bounce", "rbl,P,D,dl:Bounce", "rbl 0 3"},
        {"each letter: discard", "rbl,P,I,DL:d", "rbl 0 1"},
        {"another letter", "rbl,P,D,DL:x", "rbl 0 1"},
        {"an override without a letter", "rbl,P,D,DL:", "rbl 0 1"},
        {"an override without a colon", "rbl,P,D,DL", "rbl 0 1"},
        {"another program's", "rbl,P,D,MTA:I,POP:B", "rbl 0 1"},
        {"ours after another's", "rbl,P,I,MTA:D,DL:B", "rbl 0 3"},
        {"the last of ours holds", "rbl,P,I,DL:D,DL:B", "rbl 0 3"},
        {"a name that begins like ours", "rbl,P,I,DLX:B", "rbl 0 3"},
        {"no host", ",P,D", "-"},
        {"nothing", "", "-"},
        {"comma at the end", "rbl,P,D,", "rbl 0 1"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto host = ParseRblHost(row.value, "DL");
        EXPECT_EQ(host ? host->name + " " + std::to_string(host->mode) + " " +
                             std::to_string(host->action)
                       : "-",
                  row.want);
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
        const char* name;
        const char* interval;
        int seconds;
        bool again;
    } rows[] = {
        {"default, early", "", 899, false},
        {"default, due", "", 900, true},
        {"two minutes, early", "2", 119, false},
        {"two minutes, due", "2", 120, true},
        {"zero reloads at each message", "0", 0, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Gateway(*row.interval ? std::string("[Kestrune]\nReloadInterval = ") + row.interval : "");
        RblDefaults fresh;
        fresh.ReloadWhenDue("DL");
        const int before = directory.Calls(DirectoryCall::kSearch);
        clock.now += row.seconds;
        fresh.ReloadWhenDue("DL");
        EXPECT_EQ(directory.Calls(DirectoryCall::kSearch) - before, row.again ? 1 : 0);
    }
}

TEST_F(RblDefaultsTest, AFailedLoadForgetsTheOldOnesAndIsTriedAgain)
{
    const struct {
        const char* name;
        DirectoryCall call;
        const char* line;
    } rows[] = {
        {"connect", DirectoryCall::kConnect, "Unable to connect to LDAP server"},
        {"bind", DirectoryCall::kBind, nullptr},
        {"search", DirectoryCall::kSearch, "Unable to read the RBL default settings"},
    };
    Gateway("[Kestrune]\nReloadInterval = 0\n");
    Records({"a.example,P,I"});
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        defaults.ReloadWhenDue("DL");
        EXPECT_EQ(Hosts(), "a.example ");
        directory.Fail(row.call);
        if (row.line)
            log.ExpectError(row.line);
        defaults.ReloadWhenDue("DL");
        EXPECT_EQ(Hosts(), "");
        EXPECT_EQ(defaults.Action("a.example"), kSpamDiscard);
    }
}

TEST_F(RblDefaultsTest, AFailedFirstLoadIsTriedAgainAtOnce)
{
    Records({"a.example,P,I"});
    directory.Fail(DirectoryCall::kBind);
    defaults.ReloadWhenDue("DL");
    EXPECT_EQ(Hosts(), "");
    defaults.ReloadWhenDue("DL");
    EXPECT_EQ(Hosts(), "a.example ");
}

}  // namespace
}  // namespace dl::testing
