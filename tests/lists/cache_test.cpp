// What the cache answers of a list that it holds, and of one that it does not.

#include "tests/lists/lists_fixture.h"

namespace dl::testing
{
namespace
{

constexpr char kTeam[] = "team@example.org";
constexpr char kOther[] = "other@example.org";

class Cache : public ListsFixture
{
};

std::string Answers(const dllist& cache, const std::string& list)
{
    const auto text = [](const char* path) { return std::string(path ? path : "null") + " "; };
    const DigestTime time = cache.GetDigestTime(list);
    return text(cache.GetSubscribeTextFile(list)) + text(cache.GetUnsubscribeTextFile(list)) +
           text(cache.GetWelcomeTextFile(list)) + text(cache.GetDisclaimerFile(list)) +
           text(cache.GetDisclaimerHTMLFile(list)) + std::to_string(time.hour) + ":" +
           std::to_string(time.minute) + " frequency " + std::to_string(time.frequency) + " day " +
           std::to_string(time.day) + " size " + std::to_string(cache.GetDigestSize(list)) +
           " handling " + std::to_string(cache.GetHandlingMethod(list)) +
           (cache.UseMimeDigest(list) ? " mime" : "") +
           (cache.AllowAutoSubscription(list) ? " auto" : "") +
           (cache.AllowPosting(list) ? " posting" : "") +
           (cache.RemoveReturnReceipt(list) ? " receipt" : "") +
           (cache.GetSpamSettings(list) ? " spam" : "");
}

TEST_F(Cache, AnswersOfKnownAndUnknownLists)
{
    const std::string unknown =
        "null null null null null 0:0 frequency 0 day 1 size 0 handling 3 posting receipt";
    EXPECT_EQ(Answers(cache, kTeam), unknown) << "nothing is loaded";
    Directory(List("plain@example.org") +
              List(kTeam,
                   "subtxtpath: /s\nunsubtxtpath: /u\nwelcometxtpath: /w\ndisclaimertxtpath: /d\n"
                   "disclaimerhtmlpath: /h\nDigestDeliverTime: 6:30\nfrequency: monthly\n"
                   "whichday: 17\nmaxdigestsize: 40\nInvalidPosting: discard\nUseMimeDigest: no\n"
                   "AutoSubscription: yes\npostingpermission: block\nRemoveReturnReceiptTo: no\n"
                   "mode: 1\narchive: 0\n"));
    ASSERT_TRUE(cache.InitCache());
    EXPECT_EQ(Answers(cache, "TEAM@EXAMPLE.ORG"),
              "/s /u /w /d /h 6:30 frequency 2 day 17 size 4000 handling 0 auto spam");
    EXPECT_EQ(Answers(cache, "plain@example.org"),
              "null null null null null 0:0 frequency 0 day 1 size 0 handling 3 mime posting "
              "receipt spam");
    for (const char* list : {kOther, "team@example.or", "team", "eam@example.org", ""}) {
        SCOPED_TRACE(list);
        EXPECT_EQ(Answers(cache, list), unknown);
        EXPECT_EQ(cache.GetMode(list), -1);
        EXPECT_EQ(cache.GetArchiveFlag(list), -1);
    }
    EXPECT_EQ(cache.GetMode("Team@example.org"), kClosedList);
    EXPECT_EQ(cache.GetArchiveFlag("Team@example.org"), 0);
    EXPECT_EQ(cache.GetMode("plain@example.org"), kOpenList);
    EXPECT_EQ(cache.GetArchiveFlag("plain@example.org"), 1);
}

// These two load an empty cache, each time as long as there is no list.
TEST_F(Cache, ModeAndArchiveFlagLoadAnEmptyCache)
{
    EXPECT_EQ(cache.GetMode(kTeam), -1);
    EXPECT_EQ(cache.GetArchiveFlag(kTeam), -1);
    EXPECT_EQ(directory.Made(DirectoryCall::kSearch), 2);
    Directory(List(kTeam, "mode: 1\n"));
    EXPECT_EQ(cache.GetMode(kTeam), kClosedList);
    EXPECT_EQ(directory.Made(DirectoryCall::kSearch), 3);
    EXPECT_EQ(cache.GetMode(kOther), -1);
    EXPECT_EQ(cache.GetArchiveFlag(kTeam), 1);
    EXPECT_EQ(directory.Made(DirectoryCall::kSearch), 3);
    dllist unreachable;
    log.ExpectError("Could not connect to Directory Server");
    directory.FailNth(DirectoryCall::kConnect, 1, 2);
    EXPECT_EQ(unreachable.GetMode(kTeam), -1);
    EXPECT_EQ(unreachable.GetArchiveFlag(kTeam), -1);
}

TEST_F(Cache, EmptyMeansThatNoListsWereLoaded)
{
    const struct {
        const char* name;
        std::string ldif;
        bool empty;
        int count;
    } rows[] = {
        {"no entry", "", true, 0},
        {"no list", "dn: cn=x\nobjectClass: person\nmail: x@example.org\n\n", true, 0},
        {"an entry without an address", "dn: cn=x\nobjectClass: qvlist\nmode: 1\n\n", false, 0},
        {"a list", List(kTeam), false, 1},
    };
    EXPECT_TRUE(cache.CacheEmpty());
    EXPECT_FALSE(cache.DirectoryReachable());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Directory(row.ldif);
        EXPECT_TRUE(cache.InitCache());
        EXPECT_TRUE(cache.DirectoryReachable());
        EXPECT_EQ(cache.CacheEmpty(), row.empty);
        EXPECT_EQ(cache.Count(), row.count);
        cache.DeleteCache();
        EXPECT_TRUE(cache.CacheEmpty());
        EXPECT_EQ(cache.Count(), 0);
        EXPECT_EQ(cache.GetFirstList(), nullptr);
    }
}

TEST_F(Cache, IsCachedFindsListsThatAreNewer)
{
    Directory(List("a@x.org"));
    EXPECT_TRUE(cache.IsCached("A@X.ORG"));  // loads
    EXPECT_EQ(directory.Made(DirectoryCall::kSearch), 1);
    EXPECT_TRUE(cache.IsCached("a@x.org"));
    EXPECT_EQ(directory.Made(DirectoryCall::kSearch), 1);
    EXPECT_FALSE(cache.IsCached(kTeam));
    EXPECT_EQ(directory.Made(DirectoryCall::kSearch), 2);
    Directory(List(kTeam, "mode: 1\n") + List("a@x.org") + List("b@x.org"));
    EXPECT_TRUE(cache.IsCached(kTeam));
    EXPECT_EQ(Names(&cache), "a@x.org team@example.org ");
    EXPECT_EQ(cache.GetMode(kTeam), kClosedList);
    ASSERT_TRUE(cache.RefreshCache());
    EXPECT_EQ(Names(&cache), "team@example.org a@x.org b@x.org ");
    // With nothing loaded it looks twice, once for all lists and once for the one.
    Directory("");
    dllist nothing;
    log.Clear();
    EXPECT_FALSE(nothing.IsCached(kTeam));
    EXPECT_EQ(Logged(),
              "6 There is no mailing listing available in the Directory Server\n"
              "6 There is no mailing listing available in the Directory Server\n");
}

// Texts stay where they are while lists are added.
TEST_F(Cache, TextsOutliveListsThatAreAdded)
{
    Directory(List(kTeam, "subtxtpath: /s\nlistmember: Immediate;m@example.com\n"));
    ASSERT_TRUE(cache.InitCache());
    const char* name = cache.GetFirstList();
    const char* path = cache.GetSubscribeTextFile(kTeam);
    const char* member = cache.GetFirstMember(kTeam, "Immediate");
    std::string more;
    for (int i = 0; i < 100; ++i)
        more += List("l" + std::to_string(i) + "@x.org");
    Directory(more);
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(cache.IsCached("l" + std::to_string(i) + "@x.org"));
    EXPECT_STREQ(name, kTeam);
    EXPECT_STREQ(path, "/s");
    EXPECT_STREQ(member, "m@example.com");
}

TEST(CaseOfTexts, InPlace)
{
    char text[] = "aZ09-[@`{\xC4\xE4";
    EXPECT_STREQ(_strlwr(text), "az09-[@`{\xC4\xE4");
    EXPECT_STREQ(_strupr(text), "AZ09-[@`{\xC4\xE4");
}

}  // namespace
}  // namespace dl::testing
