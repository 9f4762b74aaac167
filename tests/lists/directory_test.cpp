// Loading, refreshing and adding lists: the lines, and what is left when the directory fails.

#include "lists/directory_access.h"
#include "platform/config/config.h"
#include "platform/metrics/metrics.h"
#include "tests/lists/lists_fixture.h"

namespace dl::testing
{
namespace
{

constexpr char kTeam[] = "team@example.org";
constexpr char kNoConnection[] = "1 Could not connect to Directory Server\n";
constexpr char kNoBind[] = "1 Could not bind to Directory Server\n";
constexpr char kNoAnswer[] = "1 Could not read the mailing lists from Directory Server\n";
constexpr char kNoLists[] = "6 There is no mailing listing available in the Directory Server\n";

class DirectoryOfLists : public ListsFixture
{
};

std::string LinesOf(const std::string& list, const std::string& more = "")
{
    return "6 Try loading all list members for mailing list " + list + "\n" + more +
           "6 There are 0 digest mode members for mailing list " + list +
           "\n6 There are 0 immediate mode members for mailing list " + list + "\n";
}

TEST_F(DirectoryOfLists, Login)
{
    const std::string long_text(200, 'x');
    const struct {
        const char* name;
        std::string section;
        DirectoryLogin want;
    } rows[] = {
        {"nothing", "", {"", 389, "", ""}},
        {"all",
         "HostName = ldap1\nPort = 390\nUsername = cn=dl\nPassword = secret\n",
         {"ldap1", 390, "cn=dl", "secret"}},

        {"port that is no number", "Port = abc\n", {"", 389, "", ""}},

        {"port with more behind", "Port = 636 # tls\n", {"", 636, "", ""}},
        {"cut",
         "HostName = " + long_text + "\nUsername = " + long_text + "\nPassword = " + long_text +
             "\n",
         {std::string(127, 'x'), 389, std::string(63, 'x'), std::string(63, 'x')}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Configure("[Ldap]\n" + row.section);
        const DirectoryLogin login = ReadDirectoryLogin(kMainConfig);
        EXPECT_EQ(login.host, row.want.host);
        EXPECT_EQ(login.port, row.want.port);
        EXPECT_EQ(login.user, row.want.user);
        EXPECT_EQ(login.password, row.want.password);
    }
}

TEST(ListEntryName, HasOneStepForEachLabel)
{
    const std::pair<const char*, const char*> rows[] = {
        {"team@example.org", "mail=team@example.org,dc=example,dc=org"},
        {"team@localhost", "mail=team@localhost,dc=localhost"},
        {"\"a@b,c=d\"@x.org", "mail=\\22a@b\\2Cc\\3Dd\\22@x.org,dc=x,dc=org"},
        {"team@a,dc=evil", "mail=team@a\\2Cdc\\3Devil,dc=a\\2Cdc\\3Devil"},
        {"team@", "mail=team@"},
    };
    for (const auto& [list, name] : rows)
        EXPECT_EQ(dl::ListEntryName(list), name) << list;
}

TEST_F(DirectoryOfLists, InitCacheSaysWhatItLoads)
{
    Directory(List("a@x.org") + "dn: cn=nameless\nobjectClass: qvlist\nmode: 1\n\n" + List(kTeam) +
              List("Team@Example.org", "mode: 1\nmail: second@example.org\n", "again"));
    ASSERT_TRUE(cache.InitCache());
    EXPECT_EQ(Logged(),
              "6 Found mailing list a@x.org\n"
              "6 Found mailing list team@example.org\n"
              "6 Found mailing list Team@Example.org\n"
              "6 3 mailing list(s) are found in Directory Server\n" +
                  LinesOf("a@x.org") + LinesOf(kTeam) +
                  LinesOf("Team@Example.org", "6 This is a close list\n"));
    EXPECT_EQ(Names(&cache), "a@x.org team@example.org Team@Example.org ");
    EXPECT_EQ(cache.GetMode("TEAM@example.org"), kOpenList);
    EXPECT_EQ(cache.GetMode("second@example.org"), -1) << "only the first address counts";
    ASSERT_TRUE(cache.InitCache());
    EXPECT_EQ(cache.Count(), 3) << "the second load takes the first one's place";
}

struct Fault {
    const char* name;
    DirectoryCall call;
    const char* logged;
    bool reachable;
    std::size_t entries = 0;  // that come before the search fails
};
constexpr Fault kFaults[] = {
    {"connect", DirectoryCall::kConnect, kNoConnection, false},
    {"bind", DirectoryCall::kBind, kNoBind, false},
    {"search", DirectoryCall::kSearch, kNoAnswer, true},
    {"half an answer", DirectoryCall::kSearch, kNoAnswer, true, 1},
};

TEST_F(DirectoryOfLists, AFailedFirstLoadWaitsAndLeavesNothing)
{
    Directory(List("first@example.org") + List(kTeam));
    for (const Fault& fault : kFaults) {
        SCOPED_TRACE(fault.name);
        dllist fresh;
        log.ExpectError(std::string(fault.logged).substr(2, 20));
        directory.entries = fault.entries;
        directory.FailNext(fault.call);
        EXPECT_FALSE(fresh.InitCache());
        EXPECT_EQ(Logged(), fault.logged);
        EXPECT_TRUE(fresh.CacheEmpty());
        EXPECT_FALSE(fresh.DirectoryReachable()) << "the main loop must wait, not bounce";
        EXPECT_TRUE(fresh.WaitsForDirectory());
        // Asking for a list tries again, and gives up for a second when that fails.
        directory.FailNext(fault.call);
        EXPECT_FALSE(fresh.IsCached("first@example.org"));
        EXPECT_TRUE(fresh.LookUpFailed());
        EXPECT_EQ(Logged(), fault.logged);
        EXPECT_EQ(fresh.GetMode(kTeam), -1);
        EXPECT_EQ(Logged(), "");
        ++clock.now;
        EXPECT_TRUE(fresh.IsCached(kTeam));
        EXPECT_FALSE(fresh.LookUpFailed());
        EXPECT_TRUE(fresh.DirectoryReachable());
        EXPECT_FALSE(fresh.WaitsForDirectory());
        log.Clear();
    }
}

TEST_F(DirectoryOfLists, TheServicesFiguresTellOfItsOwnCacheAlone)
{
    ASSERT_TRUE(OpenMetrics(Path(""), "dlmanager"));
    const auto figures = [this] {
        MetricsSnapshot seen;
        EXPECT_TRUE(ReadMetrics(Path(""), "dlmanager", &seen));
        std::string text;
        for (const Metric metric : {Metric::kWaitsForDirectory, Metric::kRefreshes,
                                    Metric::kRefreshesFailed, Metric::kLists})
            text += std::to_string(seen[metric]) + " ";
        return text;
    };
    Directory(List(kTeam));
    ListCache().DeleteCache();
    log.ExpectError("Could not connect to Directory Server");
    directory.FailNth(DirectoryCall::kConnect, 1, 2);
    EXPECT_FALSE(ListCache().InitCache());
    EXPECT_FALSE(cache.InitCache());
    EXPECT_EQ(figures(), "1 0 1 0 ");
    EXPECT_TRUE(cache.InitCache());
    EXPECT_EQ(figures(), "1 0 1 0 ") << "the archive worker's is another one";
    EXPECT_TRUE(ListCache().RefreshCache());
    EXPECT_EQ(figures(), "0 1 1 1 ");
    ListCache().DeleteCache();
    CloseMetrics();
}

// A directory that held no list when it was read first, and goes away, is not waited for.
TEST_F(DirectoryOfLists, WaitingEndsWithTheFirstAnswer)
{
    ASSERT_TRUE(cache.InitCache());
    EXPECT_TRUE(cache.CacheEmpty());
    log.ExpectError("Could not connect to Directory Server");
    directory.FailNext(DirectoryCall::kConnect);
    EXPECT_FALSE(cache.IsCached(kTeam));
    EXPECT_FALSE(cache.DirectoryReachable());
    EXPECT_FALSE(cache.WaitsForDirectory());
}

TEST_F(DirectoryOfLists, OnlyAWholeAnswerReplacesTheLists)
{
    Directory(List(kTeam, "listmember: Immediate;m@example.com\n"));
    ASSERT_TRUE(cache.InitCache());
    const char* name = cache.GetFirstList();
    Directory(List("new@example.org") + List("newer@example.org"));
    const auto unchanged = [&] {
        EXPECT_EQ(Names(&cache), "team@example.org ");
        EXPECT_STREQ(name, kTeam) << "texts are still valid";
        EXPECT_EQ(Members(&cache, kTeam, "Immediate"), "m@example.com ");
        EXPECT_FALSE(cache.WaitsForDirectory());
    };
    for (const Fault& fault : kFaults) {
        SCOPED_TRACE(fault.name);
        log.ExpectError(std::string(fault.logged).substr(2, 20));
        log.Clear();
        directory.entries = fault.entries;
        directory.FailNext(fault.call);
        EXPECT_EQ(cache.RefreshCache(), !fault.reachable);
        EXPECT_TRUE(cache.RefreshFailed());
        EXPECT_EQ(Logged(), fault.reachable ? fault.logged : "");
        EXPECT_TRUE(cache.DirectoryReachable()) << "a refresh that fails does not touch it";
        unchanged();
        directory.FailNext(fault.call);
        EXPECT_FALSE(cache.InitCache());
        EXPECT_EQ(Logged(), fault.logged);
        EXPECT_FALSE(cache.DirectoryReachable());
        unchanged();
        Directory(List(kTeam, "listmember: Immediate;m@example.com\n"));
        EXPECT_TRUE(cache.RefreshCache());
        EXPECT_FALSE(cache.RefreshFailed());
        EXPECT_TRUE(cache.DirectoryReachable());
        name = cache.GetFirstList();
        Directory(List("new@example.org") + List("newer@example.org"));
    }
    ASSERT_TRUE(cache.RefreshCache());
    EXPECT_EQ(Names(&cache), "new@example.org newer@example.org ");
    // A directory that answers without lists does empty the cache.
    Directory("");
    log.Clear();
    EXPECT_TRUE(cache.RefreshCache());
    EXPECT_EQ(Logged(), kNoLists);
    EXPECT_TRUE(cache.CacheEmpty());
    EXPECT_TRUE(cache.DirectoryReachable());
}

// Look-ups that ask, in seconds from the first one. In between they fail without a line, and lists
// that are cached answer.
TEST_F(DirectoryOfLists, FailedLookUpsAreRepeatedLessAndLess)
{
    Directory(List(kTeam));
    ASSERT_TRUE(cache.InitCache());
    log.ExpectError("Could not connect to Directory Server");
    directory.FailNth(DirectoryCall::kConnect, 1, 1000);
    const std::time_t begin = clock.now;
    std::string asked;
    for (; clock.now - begin <= 190; ++clock.now) {
        const int connects = directory.Made(DirectoryCall::kConnect);
        log.Clear();
        EXPECT_FALSE(cache.IsCached("new@example.org"));
        EXPECT_TRUE(cache.LookUpFailed());
        EXPECT_FALSE(cache.AddCache("other@example.org"));
        EXPECT_TRUE(cache.LookUpFailed());
        const bool asks = directory.Made(DirectoryCall::kConnect) != connects;
        EXPECT_EQ(Logged(), asks ? kNoConnection : "");
        asked += asks ? std::to_string(clock.now - begin) + " " : "";
        EXPECT_TRUE(cache.IsCached(kTeam));
        EXPECT_FALSE(cache.LookUpFailed());
    }
    EXPECT_EQ(asked, "0 1 3 7 15 31 63 123 183 ");
    // Any answer, here that of a refresh, ends the pause.
    directory.ForgetFaults();
    EXPECT_FALSE(cache.IsCached("new@example.org"));
    EXPECT_TRUE(cache.LookUpFailed());
    EXPECT_TRUE(cache.RefreshCache());
    EXPECT_FALSE(cache.IsCached("new@example.org"));
    EXPECT_FALSE(cache.LookUpFailed());
    directory.FailNext(DirectoryCall::kConnect);
    EXPECT_FALSE(cache.IsCached("new@example.org"));
    clock.now -= 86'400;  // so does a clock that is set back
    EXPECT_FALSE(cache.IsCached("new@example.org"));
    EXPECT_FALSE(cache.LookUpFailed());
}

TEST_F(DirectoryOfLists, AnUnreadableFileIsAnUnreachableDirectory)
{
    Directory(List(kTeam));
    ASSERT_TRUE(cache.InitCache());
    log.ExpectError("directory.ldif, line 5");
    Directory(List(kTeam) + "this is no LDIF\n");
    EXPECT_TRUE(cache.RefreshCache());
    log.ExpectError("directory.ldif: No such file or directory");
    std::filesystem::remove(Path("conf/directory.ldif"));
    EXPECT_TRUE(cache.RefreshCache());
    EXPECT_EQ(Names(&cache), "team@example.org ");
    log.ExpectError("Could not connect to Directory Server");
    EXPECT_FALSE(cache.IsCached("new@example.org"));
    EXPECT_FALSE(cache.DirectoryReachable());
    EXPECT_EQ(Names(&cache), "team@example.org ");
}

// Its own test of the directory does not touch the flag that the main loop looks at.
TEST_F(DirectoryOfLists, RefreshOfAnEmptyCacheBringsTheListsBack)
{
    Directory(List(kTeam));
    log.ExpectError("Could not connect to Directory Server");
    directory.FailNth(DirectoryCall::kConnect, 1, 3);
    EXPECT_FALSE(cache.InitCache());
    EXPECT_TRUE(cache.RefreshCache());
    EXPECT_FALSE(cache.DirectoryReachable());
    EXPECT_FALSE(cache.HasMember(kTeam, "Immediate"));  // refreshes, silently in vain
    EXPECT_EQ(Logged(), kNoConnection);
    EXPECT_TRUE(cache.RefreshCache());
    EXPECT_TRUE(cache.DirectoryReachable());
    EXPECT_EQ(Logged(),
              "6 Found mailing list team@example.org\n"
              "6 1 mailing list(s) are found in Directory Server\n" +
                  LinesOf(kTeam));
    EXPECT_EQ(cache.Count(), 1);
    dllist other;
    EXPECT_FALSE(other.HasMember(kTeam, "Immediate")) << "no list was chosen";
    EXPECT_EQ(other.Count(), 1) << "but all were loaded";
}

TEST_F(DirectoryOfLists, AddCacheAppendsEachListOfTheAddress)
{
    Directory(List("a@x.org"));
    ASSERT_TRUE(cache.InitCache());
    Directory(List("a@x.org") + "dn: cn=nameless\nobjectClass: qvlist\n\n" +
              List(kTeam, "listmember: Immediate;first@example.com\n") +
              List("Team@Example.org", "listmember: Immediate;second@example.com\n", "again"));
    log.Clear();
    EXPECT_TRUE(cache.AddCache("TEAM@example.org"));
    EXPECT_EQ(Logged(),
              "6 Found mailing list team@example.org\n"
              "6 There are 0 digest mode members for mailing list TEAM@example.org\n"
              "6 There are 1 immediate mode members for mailing list TEAM@example.org\n"
              "6 Found mailing list Team@Example.org\n"
              "6 There are 0 digest mode members for mailing list TEAM@example.org\n"
              "6 There are 1 immediate mode members for mailing list TEAM@example.org\n");
    // The last one is chosen, though a lookup finds the first.
    EXPECT_STREQ(cache.GetFirstMember("unknown@example.org", "Immediate"), "second@example.com");
    EXPECT_STREQ(cache.GetFirstMember(kTeam, "Immediate"), "first@example.com");
    EXPECT_EQ(Names(&cache), "a@x.org TEAM@example.org TEAM@example.org ");
    EXPECT_FALSE(cache.AddCache("nobody@example.org"));
    EXPECT_TRUE(cache.AddCache("a@x.org")) << "it does not look whether the list is cached";
    EXPECT_EQ(cache.Count(), 4);
    Directory(List("Other@x.org", "mail: third@x.org\n") + List("third@x.org"));
    log.Clear();
    EXPECT_TRUE(cache.AddCache("third@x.org"))
        << "an entry whose first address is another is not it";
    EXPECT_EQ(cache.Count(), 5);
    EXPECT_FALSE(cache.AddCache("(mail=*"));
    // Without a list the line comes, which a cache with lists does not ask for.
    for (const bool any : {true, false}) {
        Directory(any ? List("a@x.org") : "");
        log.Clear();
        EXPECT_FALSE(dllist().AddCache(kTeam));
        EXPECT_EQ(Logged(), any ? "" : kNoLists);
    }
    log.ExpectError("Could not read the mailing lists from Directory Server");
    directory.FailNth(DirectoryCall::kSearch, 2);
    dllist empty;
    EXPECT_FALSE(empty.AddCache(kTeam));
    EXPECT_TRUE(empty.LookUpFailed());
}

TEST_F(DirectoryOfLists, AFailedAddCacheLeavesTheLists)
{
    Directory(List("a@x.org"));
    ASSERT_TRUE(cache.InitCache());
    Directory(List("a@x.org") + List(kTeam));
    for (const Fault& fault : kFaults) {
        SCOPED_TRACE(fault.name);
        log.Clear();
        log.ExpectError(std::string(fault.logged).substr(2, 20));
        directory.entries = fault.entries;
        directory.FailNext(fault.call);
        EXPECT_FALSE(cache.AddCache(kTeam));
        EXPECT_TRUE(cache.LookUpFailed());
        EXPECT_EQ(Logged(), fault.logged);
        EXPECT_EQ(cache.DirectoryReachable(), fault.reachable);
        EXPECT_EQ(Names(&cache), "a@x.org ");
        clock.now += 60;
    }
    EXPECT_TRUE(cache.AddCache(kTeam));
    EXPECT_TRUE(cache.DirectoryReachable());
    dllist alone;
    EXPECT_TRUE(alone.AddCache(kTeam));
    EXPECT_FALSE(alone.CacheEmpty());
    EXPECT_EQ(Names(&alone), "team@example.org ");
}

}  // namespace
}  // namespace dl::testing
