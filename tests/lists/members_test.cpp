// Members, and the cursors that walk them.

#include <chrono>

#include "tests/lists/lists_fixture.h"

namespace dl::testing
{
namespace
{

constexpr char kTeam[] = "team@example.org";

class MembersOfLists : public ListsFixture
{
};

TEST_F(MembersOfLists, ValuesBecomeMembers)
{
    for (const auto& row : ReadTable("tables/directory.txt", "member values")) {
        SCOPED_TRACE(row.at(0));
        const std::string &immediate = row.at(2), &digest = row.at(3), &blocked = row.at(4);
        Directory(List(kTeam, "listmember: " + row.at(1) + "\n"));
        ASSERT_TRUE(cache.InitCache());
        EXPECT_EQ(Members(&cache, kTeam, "Immediate"), immediate);
        EXPECT_EQ(Members(&cache, kTeam, "Digest"), digest);
        EXPECT_EQ(cache.HasMember(kTeam, "immediate"), !immediate.empty());
        EXPECT_EQ(cache.HasMember(kTeam, "DIGEST"), !digest.empty());
        EXPECT_EQ(cache.IsMemberBlocked("TEAM@example.org", blocked), !blocked.empty());
        EXPECT_FALSE(cache.IsMemberBlocked(kTeam, "a@b.or"));
        EXPECT_FALSE(cache.IsMemberBlocked("other@example.org", blocked));
        for (const char* mode : {"", "Immediat", "Both"}) {
            EXPECT_EQ(cache.GetFirstMember(kTeam, mode), nullptr);
            EXPECT_EQ(cache.GetNextMember(kTeam, mode), nullptr);
            EXPECT_FALSE(cache.HasMember(kTeam, mode));
        }
    }
}

// The digest members are looked at first, and the first of an address holds.
TEST_F(MembersOfLists, BlockedOfAnAddressThatIsMemberTwice)
{
    const struct {
        const char *name, *values;
        bool blocked;
    } rows[] = {
        {"blocked in the digest", "listmember: Immediate;a@b\nlistmember: Digest;Blocked;a@b\n",
         true},
        {"not blocked in the digest", "listmember: Immediate;Blocked;a@b\nlistmember: Digest;a@b\n",
         false},
        {"first of two immediate ones",
         "listmember: Immediate;Blocked;A@b\nlistmember: Immediate;a@b\n", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Directory(List(kTeam, row.values));
        ASSERT_TRUE(cache.InitCache());
        EXPECT_EQ(cache.IsMemberBlocked(kTeam, "A@B"), row.blocked);
    }
}

class Cursors : public ListsFixture
{
 protected:
    Cursors()
    {
        Directory(List("a@x.org",
                       "listmember: Immediate;a1@y\nlistmember: Digest;ad1@y\n"
                       "listmember: Immediate;a2@y\nlistmember: Digest;ad2@y\n"
                       "listmember: Immediate;a3@y\n") +
                  List("b@x.org", "listmember: Digest;bd1@y\nlistmember: Digest;bd2@y\n") +
                  List("c@x.org"));
        EXPECT_TRUE(cache.InitCache());
    }
};

std::string OrNull(const char* text)
{
    return text ? text : "null";
}

TEST_F(Cursors, TheTwoModesWalkApart)
{
    EXPECT_EQ(OrNull(cache.GetNextMember("a@x.org", "Immediate")), "null");  // no list chosen
    EXPECT_EQ(OrNull(cache.GetFirstMember("A@X.org", "Immediate")), "a1@y");
    EXPECT_EQ(OrNull(cache.GetFirstMember("a@x.org", "Digest")), "ad1@y");
    EXPECT_EQ(OrNull(cache.GetNextMember("a@x.ORG", "Immediate")), "a2@y");
    EXPECT_EQ(OrNull(cache.GetNextMember("a@x.org", "digest")), "ad2@y");
    EXPECT_EQ(OrNull(cache.GetNextMember("a@x.org", "Digest")), "null");
    EXPECT_EQ(OrNull(cache.GetNextMember("b@x.org", "Digest")), "null");  // not the chosen list
    EXPECT_EQ(OrNull(cache.GetNextMember("a@x.org", "Immediate")), "a3@y");
    EXPECT_EQ(OrNull(cache.GetNextMember("a@x.org", "Immediate")), "null");
    EXPECT_EQ(OrNull(cache.GetNextMember("a@x.org", "Immediate")), "null");
    EXPECT_EQ(OrNull(cache.GetFirstMember("a@x.org", "Immediate")), "a1@y");
}

TEST_F(Cursors, GetFirstMemberOfAnUnknownListWalksTheListChosenLast)
{
    const int searches = directory.Made(DirectoryCall::kSearch);
    EXPECT_EQ(OrNull(cache.GetFirstMember("new@x.org", "Immediate")), "null");
    EXPECT_EQ(directory.Made(DirectoryCall::kSearch), searches + 1);  // no list was chosen
    EXPECT_EQ(OrNull(cache.GetFirstMember("b@x.org", "Immediate")), "null");
    EXPECT_EQ(OrNull(cache.GetFirstMember("new@x.org", "Digest")), "bd1@y");
    EXPECT_EQ(directory.Made(DirectoryCall::kSearch), searches + 1);
    EXPECT_EQ(OrNull(cache.GetNextMember("new@x.org", "Digest")), "null");
    EXPECT_EQ(OrNull(cache.GetNextMember("b@x.org", "Digest")), "bd2@y");
}

TEST_F(Cursors, GetFirstMemberLoadsAListThatIsNewerThanTheCache)
{
    Directory(List("new@x.org", "listmember: Immediate;n@y\n"));
    EXPECT_EQ(OrNull(cache.GetFirstMember("new@x.org", "Immediate")), "n@y");
    EXPECT_EQ(Names(&cache), "a@x.org b@x.org c@x.org new@x.org ");
    dllist empty;
    EXPECT_EQ(OrNull(empty.GetFirstMember("new@x.org", "Immediate")), "n@y");
    EXPECT_EQ(empty.Count(), 1);
}

TEST_F(Cursors, HasMemberReadsTheListOfTheCursor)
{
    EXPECT_FALSE(cache.HasMember("a@x.org", "Immediate")) << "no list was chosen";
    EXPECT_STREQ(cache.GetFirstList(), "a@x.org");
    EXPECT_TRUE(cache.HasMember("a@x.org", "Immediate"));
    EXPECT_TRUE(cache.HasMember("c@x.org", "Immediate")) << "reads a@x.org";
    EXPECT_FALSE(cache.HasMember("new@x.org", "Immediate")) << "not cached";
    EXPECT_STREQ(cache.GetNextList(), "b@x.org");
    EXPECT_FALSE(cache.HasMember("a@x.org", "Immediate")) << "reads b@x.org";
    EXPECT_TRUE(cache.HasMember("b@x.org", "Digest"));
    EXPECT_EQ(OrNull(cache.GetFirstMember("c@x.org", "Digest")), "null");
    EXPECT_FALSE(cache.HasMember("b@x.org", "Digest")) << "reads c@x.org";
}

TEST_F(Cursors, OfNoListsGiveNull)
{
    EXPECT_EQ(OrNull(dllist().GetFirstList()), "null");
    EXPECT_EQ(OrNull(dllist().GetNextList()), "null");
}

TEST_F(Cursors, SurviveARefresh)
{
    EXPECT_STREQ(cache.GetFirstList(), "a@x.org");
    EXPECT_STREQ(cache.GetFirstMember("a@x.org", "Immediate"), "a1@y");
    EXPECT_STREQ(cache.GetNextMember("a@x.org", "Immediate"), "a2@y");
    Directory(List("z@x.org",
                   "listmember: Immediate;z1@y\nlistmember: Immediate;z2@y\n"
                   "listmember: Immediate;z3@y\n") +
              List("a@x.org", "listmember: Immediate;a9@y\n") + List("b@x.org"));
    ASSERT_TRUE(cache.RefreshCache());
    EXPECT_EQ(OrNull(cache.GetNextMember("z@x.org", "Immediate")), "z3@y");
    EXPECT_TRUE(cache.HasMember("b@x.org", "Immediate")) << "reads z@x.org";
    EXPECT_STREQ(cache.GetNextList(), "a@x.org");
    EXPECT_STREQ(cache.GetNextList(), "b@x.org");
    // Now behind the end of everything.
    Directory(List("a@x.org", "listmember: Immediate;a9@y\n"));
    ASSERT_TRUE(cache.RefreshCache());
    EXPECT_EQ(OrNull(cache.GetNextList()), "null");
    EXPECT_FALSE(cache.HasMember("a@x.org", "Immediate"));
    EXPECT_EQ(OrNull(cache.GetNextMember("a@x.org", "Immediate")), "null");
    EXPECT_EQ(OrNull(cache.GetFirstMember("new@x.org", "Immediate")), "null");
    EXPECT_EQ(OrNull(cache.GetFirstMember("a@x.org", "Immediate")), "a9@y");
}

// Of any length, with a blocked one before and behind each.
TEST_F(MembersOfLists, LongAddresses)
{
    std::string values;
    std::string want;
    for (const std::size_t size : {1U, 16'000U, 16'384U, 40'000U, 70'000U}) {
        values += "listmember: Immediate;Blocked;b" + std::to_string(size) + "@x\n";
        values += "listmember: Immediate;" + std::string(size, 'a') + "@x\n";
        want += "b" + std::to_string(size) + "@x " + std::string(size, 'a') + "@x ";
    }
    Directory(List(kTeam, values));
    ASSERT_TRUE(cache.InitCache());
    EXPECT_EQ(Members(&cache, kTeam, "Immediate"), want);
    for (const std::size_t size : {1U, 16'000U, 16'384U, 40'000U, 70'000U}) {
        EXPECT_TRUE(cache.IsMemberBlocked(kTeam, "b" + std::to_string(size) + "@x"));
        EXPECT_FALSE(cache.IsMemberBlocked(kTeam, std::string(size, 'a') + "@x"));
    }
}

TEST_F(MembersOfLists, TenThousandInBoundedTime)
{
    constexpr int kMembers = 10'000;
    std::string attributes;
    for (int i = 0; i < kMembers; ++i) {
        const std::string number = std::to_string(i);
        attributes += "listmember: Immediate;member" + number +
                      "@example.com\nlistmember: Digest;" + "Blocked;reader" + number +
                      "@example.com\nx-whitelist: w" + number + "@*\n";
    }
    Directory(List(kTeam, attributes));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(cache.InitCache());
    ASSERT_TRUE(cache.RefreshCache());
    for (const char* mode : {"Immediate", "Digest"}) {
        int members = 0;
        const char* name = mode[0] == 'I' ? "member" : "reader";
        for (const char* member = cache.GetFirstMember(kTeam, mode); member;
             member = cache.GetNextMember(kTeam, mode))
            ASSERT_EQ(member, name + std::to_string(members++) + "@example.com");
        EXPECT_EQ(members, kMembers);
    }
    EXPECT_TRUE(cache.IsMemberBlocked(kTeam, "READER9999@example.com"));
    EXPECT_TRUE(cache.GetSpamSettings(kTeam)->IsWhitelistedSender("w9999@example.com"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

}  // namespace
}  // namespace dl::testing
