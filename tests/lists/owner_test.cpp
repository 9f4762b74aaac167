// Who owns a list.

#include "tests/lists/lists_fixture.h"

namespace dl::testing
{
namespace
{

constexpr char kTeam[] = "team@example.org";

class Owner : public ListsFixture
{
 protected:
    // A cache of one list, in a directory with `aliases` beside it.
    void Load(const std::string& aliases, const std::string& list = kTeam)
    {
        Directory(List(list, "", "list") + aliases);
        ASSERT_TRUE(cache.InitCache());
        log.Clear();
    }
    std::string OwnerOf(const std::string& list)
    {
        const char* owner = cache.GetListOwner(list);
        return owner ? owner : "null";
    }
};

std::string Alias(const std::string& dn, const std::string& attributes)
{
    return "dn: cn=" + dn + "\nobjectClass: qvlistowner\n" + attributes + "\n";
}

// Aliases lie in tests/data/list_owners.txt, with the owner and the log line. "dGVh..." is the
// address with a blank behind it, which is equal for the directory.
TEST_F(Owner, IsFoundAmongTheAliases)
{
    log.ExpectError("Missing list-owner alias");
    log.ExpectError("names no owner");
    for (const DataBlock& row : ReadBlocks("list_owners.txt")) {
        SCOPED_TRACE(row.name);
        Load(row.in);
        const std::string owner = OwnerOf("TEAM@example.org");
        EXPECT_EQ(owner + "\n" + Logged(), row.want);
    }
}

TEST_F(Owner, IsKeptUntilTheNextRefresh)
{
    const std::string address = "mail: team-owner@example.org\nlistowner: ";
    log.ExpectError("Missing list-owner alias");
    Load("");
    const int searches = directory.Made(DirectoryCall::kSearch);
    EXPECT_EQ(OwnerOf(kTeam), "postmaster@mx1.example.org");
    Directory(List(kTeam, "", "list") + Alias("1", address + "ann@example.com\n"));
    EXPECT_EQ(OwnerOf(kTeam), "postmaster@mx1.example.org");
    EXPECT_EQ(directory.Made(DirectoryCall::kSearch), searches + 1);
    ASSERT_TRUE(cache.RefreshCache());
    EXPECT_EQ(OwnerOf(kTeam), "ann@example.com");
    Directory(List(kTeam, "", "list") + Alias("1", address + "bob@example.com\n"));
    EXPECT_EQ(OwnerOf(kTeam), "ann@example.com");
    ASSERT_TRUE(cache.RefreshCache());
    EXPECT_EQ(OwnerOf(kTeam), "bob@example.com");
}

// The postmaster must not get a list's mail until the next refresh for one moment's outage.
TEST_F(Owner, AFailedLookupIsTriedAgain)
{
    const struct {
        const char* name;
        DirectoryCall call;
        const char* logged;
        bool reachable;
    } rows[] = {
        {"connect", DirectoryCall::kConnect, "1 Could not connect to Directory Server\n", false},
        {"bind", DirectoryCall::kBind, "1 Could not bind to Directory Server\n", false},
        {"search", DirectoryCall::kSearch,
         "1 Could not look up the owner of mailing list team@example.org\n", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Load(Alias("1", "mail: team-owner@example.org\nlistowner: ann@example.com\n"));
        log.ExpectError(std::string(row.logged).substr(2, 20));
        directory.FailNext(row.call);
        EXPECT_EQ(OwnerOf(kTeam), "null");
        EXPECT_TRUE(cache.LookUpFailed());
        EXPECT_EQ(Logged(), row.logged);
        EXPECT_EQ(cache.DirectoryReachable(), row.reachable);
        EXPECT_EQ(OwnerOf(kTeam), "null") << "a second has to pass";
        EXPECT_TRUE(cache.LookUpFailed());
        EXPECT_EQ(Logged(), "");
        ++clock.now;
        EXPECT_EQ(OwnerOf(kTeam), "ann@example.com");
        EXPECT_FALSE(cache.LookUpFailed());
        EXPECT_TRUE(cache.DirectoryReachable());
    }
}

// Nothing in a list's name is a pattern or part of the filter.
TEST_F(Owner, OfAListWithAnOddName)
{
    const struct {
        const char *list, *alias, *decoy;
    } rows[] = {
        {"a*b@example.org", "a*b-owner@example.org", "axb-owner@example.org"},
        {"*@example.org", "*-owner@example.org", "boss-owner@example.org"},
        {"\"a)(mail=*\"@example.org", "\"a)(mail=*\"-owner@example.org", "any@example.org"},
        {"\"a\\\\b\"@example.org", "\"a\\\\b\"-owner@example.org", "any@example.org"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.list);
        Load(Alias("1", "mail: " + std::string(row.decoy) + "\nlistowner: wrong@example.com\n") +
                 Alias("2", "mail: " + std::string(row.alias) + "\nlistowner: ann@example.com\n"),
             row.list);
        EXPECT_EQ(OwnerOf(row.list), "ann@example.com");
    }
    log.ExpectError("Mailing list no address has no owner: its name is not a mail address");
    log.ExpectError("Mailing list no address has no digest");
    Load("", "no address");
    EXPECT_EQ(OwnerOf("no address"), "null");
    EXPECT_FALSE(cache.LookUpFailed());
}

TEST_F(Owner, IsNullWithoutAskingForAListThatIsNotCached)
{
    EXPECT_EQ(OwnerOf(kTeam), "null");
    Load(Alias("1", "mail: new-owner@example.org\nlistowner: ann@example.com\n"));
    Directory(List("new@example.org"));
    const int connects = directory.Made(DirectoryCall::kConnect);
    EXPECT_EQ(OwnerOf("new@example.org"), "null");
    EXPECT_EQ(OwnerOf(""), "null");
    EXPECT_EQ(directory.Made(DirectoryCall::kConnect), connects);
    EXPECT_EQ(Logged(), "");
}

}  // namespace
}  // namespace dl::testing
