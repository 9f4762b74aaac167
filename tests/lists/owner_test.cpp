// Who owns a list.

#include "tests/lists/lists_fixture.h"

namespace dl::testing
{
namespace
{

constexpr char kTeam[] = "team@example.org";
constexpr char kMissing[] =
    "1 Missing list-owner alias for team@example.org, use postmaster instead.\n";

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

TEST_F(Owner, IsFoundAmongTheAliases)
{
    const std::string mail = "mail: team-owner@example.org\n";
    // Equal for the directory, to which blanks around a value mean nothing.
    const std::string blank = "mail:: dGVhbS1vd25lckBleGFtcGxlLm9yZyA=\n";
    const std::string ann = "listowner: ann@example.com\n";
    const std::string bob = "listowner: bob@example.com\n";
    const std::string found_ann = "6 List owner is: ann@example.com\n";
    const std::string found_bob = "6 List owner is: bob@example.com\n";
    const struct {
        const char* name;
        std::string aliases;
        const char* owner;
        std::string logged;
    } rows[] = {
        {"one alias", Alias("1", mail + ann), "ann@example.com", found_ann},

        {"any case", Alias("1", "MAIL: Team-OWNER@Example.org\nListOwner: ann@example.com\n"),
         "ann@example.com", found_ann},
        {"a second address", Alias("1", "mail: postmaster@example.org\n" + mail + ann),
         "ann@example.com", found_ann},
        {"two owners in one entry", Alias("1", mail + ann + bob), "bob@example.com", found_bob},
        {"two entries", Alias("1", mail + ann) + Alias("2", mail + bob), "ann@example.com",
         found_ann},
        {"the mark carries over", Alias("1", mail) + Alias("2", blank + bob), "bob@example.com",
         found_bob},
        {"the owner carries over", Alias("1", blank + ann) + Alias("2", mail), "ann@example.com",
         found_ann},

        {"no owner in the entry: no postmaster either", Alias("1", mail), "null", ""},
        {"no entry has the very address", Alias("1", blank + ann), "null", ""},
        {"another list's alias", Alias("1", "mail: xteam-owner@example.org\n" + ann),
         "postmaster@mx1.example.org", kMissing},
        {"another class", "dn: cn=1\nobjectClass: person\n" + mail + ann + "\n",
         "postmaster@mx1.example.org", kMissing},
        {"no alias", "", "postmaster@mx1.example.org", kMissing},
    };
    log.ExpectError("Missing list-owner alias");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Load(row.aliases);
        EXPECT_EQ(OwnerOf("TEAM@example.org"), row.owner);
        EXPECT_EQ(Logged(), row.logged);
    }
}

TEST_F(Owner, IsKeptUntilTheNextRefresh)
{
    const std::string address = "mail: team-owner@example.org\nlistowner: ";
    log.ExpectError("Missing list-owner alias");
    Load("");
    const int searches = directory.Calls(DirectoryCall::kSearch);
    EXPECT_EQ(OwnerOf(kTeam), "postmaster@mx1.example.org");
    Directory(List(kTeam, "", "list") + Alias("1", address + "ann@example.com\n"));
    EXPECT_EQ(OwnerOf(kTeam), "postmaster@mx1.example.org");
    EXPECT_EQ(directory.Calls(DirectoryCall::kSearch), searches + 1);
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
        directory.Fail(row.call);
        EXPECT_EQ(OwnerOf(kTeam), "null");
        EXPECT_EQ(Logged(), row.logged);
        EXPECT_EQ(cache.DirectoryReachable(), row.reachable);
        EXPECT_EQ(OwnerOf(kTeam), "ann@example.com");
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
}

TEST_F(Owner, IsNullWithoutAskingForAListThatIsNotCached)
{
    EXPECT_EQ(OwnerOf(kTeam), "null");
    Load(Alias("1", "mail: new-owner@example.org\nlistowner: ann@example.com\n"));
    Directory(List("new@example.org"));
    const int connects = directory.Calls(DirectoryCall::kConnect);
    EXPECT_EQ(OwnerOf("new@example.org"), "null");
    EXPECT_EQ(OwnerOf(""), "null");
    EXPECT_EQ(directory.Calls(DirectoryCall::kConnect), connects);
    EXPECT_EQ(Logged(), "");
}

}  // namespace
}  // namespace dl::testing
