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
    for (const auto& row : ReadTable("tables/directory.txt", "addresses of lists"))
        EXPECT_EQ(Say(ClassifyListAddress(row.at(0))), row.at(1)) << row.at(0);
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
