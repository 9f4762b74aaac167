#include "dispatch/list_address.h"

#include "lists/dllist.h"
#include "tests/support/site.h"

namespace dl::testing
{
namespace
{

std::string Say(const ListAddress& target)
{
    static constexpr const char* kKinds[] = {"list ", "owner ", "request "};
    return target.found ? kKinds[static_cast<int>(target.kind)] + target.list : "none";
}

}  // namespace

class ListAddressTest : public Site
{
 protected:
    ListAddressTest()
    {
        AddList("list",
                "listmember: Immediate;Anna@Example.com\nlistmember: Digest;dora@x.org\n"
                "listmember: Digest;Blocked;trader@x.org\n");
        AddList("my-list", "mode: 1\n");
        AddList("odd-", "");
        AddList("-request", "");
        Start();
    }
};

TEST_F(ListAddressTest, IsClassifiedByTheLastDashOfItsLocalPart)
{
    const std::pair<const char*, const char*> rows[] = {
        {"list@lists.example.org", "list list@lists.example.org"},
        {"LIST@Lists.Example.Org", "list LIST@Lists.Example.Org"},
        {"<list@lists.example.org>", "list list@lists.example.org"},

        {"list-OWNER@lists.example.org", "owner list@lists.example.org"},
        {"list-request@lists.example.org", "request list@lists.example.org"},

        {"my-list@lists.example.org", "list my-list@lists.example.org"},

        {"my-list-request@lists.example.org", "request my-list@lists.example.org"},
        // Longer text counts as the suffix, and is cut as if it were the suffix.
        {"list-owners@lists.example.org", "none"},
        {"list-requests@lists.example.org", "none"},
        {"odd-owners@lists.example.org", "owner odd-@lists.example.org"},

        {"odd-@lists.example.org", "list odd-@lists.example.org"},
        // No further test of the whole address.

        {"list-owner-x@lists.example.org", "none"},

        // A dash in first position is none.
        {"-request@lists.example.org", "list -request@lists.example.org"},
        {"-owner@lists.example.org", "none"},
        {"--owner@lists.example.org", "none"},
        {"list@my-lists.example.org", "none"},

        {"list", "none"},

        {"", "none"},
        {"<>", "none"},
        {"list-owner@lists.example.org\n", "none"},
        {"list@lists.example.org)(mail=*", "none"},

    };
    for (const auto& [address, want] : rows)
        EXPECT_EQ(Say(ClassifyListAddress(address)), want) << address;
}

TEST_F(ListAddressTest, FindsAListThatIsNewerThanTheCache)
{
    AddList("late", "");
    EXPECT_EQ(Say(ClassifyListAddress("late-owner@lists.example.org")), "none");
    std::string ldif = ReadFile(Path("site.ldif"));
    ldif +=
        "dn: mail=late@lists.example.org,dc=lists,dc=example,dc=org\n"
        "mail: late@lists.example.org\nobjectClass: qvlist\n\n";
    Write("site.ldif", ldif);
    EXPECT_EQ(Say(ClassifyListAddress("late-owner@lists.example.org")),
              "owner late@lists.example.org");
}

TEST_F(ListAddressTest, MembersAndModeComeFromTheCache)
{
    constexpr char kList[] = "LIST@lists.example.org";
    for (const char* member :
         {"anna@example.com", "ANNA@EXAMPLE.COM", "dora@x.org", "trader@x.org"})
        EXPECT_TRUE(IsListMember(kList, member)) << member;
    for (const char* other : {"ann@example.com", "Immediate;anna@example.com", "", "<>"})
        EXPECT_FALSE(IsListMember(kList, other)) << other;
    ListCache().DeleteCache();
    EXPECT_EQ(Say(ClassifyListAddress(kList)), "none");
    EXPECT_FALSE(IsListMember(kList, "anna@example.com"));
    EXPECT_EQ(GetListMode(kList), -1);
    EXPECT_TRUE(ListCache().CacheEmpty()) << "none of them loads it";
}

TEST(AddressPredicates, LookAtTheTextAlone)
{
    std::string address = "Any-REQUESTS@X";
    EXPECT_TRUE(IsRequestAddress(&address));
    EXPECT_EQ(address, "any-requests@x");
    std::string other = "a-reques@x.org";
    EXPECT_FALSE(IsRequestAddress(&other));
    EXPECT_TRUE(IsOwnerAddress("A-b-OWNER@x.org"));
    for (const char* no : {"a-owners@x.org", "owner@x.org", "a@b-owner", "a-owner"})
        EXPECT_FALSE(IsOwnerAddress(no)) << no;
}

}  // namespace dl::testing
