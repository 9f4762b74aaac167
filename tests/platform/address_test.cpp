#include "platform/address/address.h"

#include <sstream>

#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

class Address : public Fixture
{
};

TEST_F(Address, TakesMailboxes)
{
    const std::string long_local(998, 'a');
    const struct {
        std::string address, local, domain;
    } rows[] = {
        {"list@example.org", "list", "example.org"},
        {"<list@example.org>", "list", "example.org"},
        {"List-Owner@Example.ORG", "List-Owner", "Example.ORG"},

        {"a.b+c=d%e%s@x", "a.b+c=d%e%s", "x"},

        {"!#$&'*?^_`{|}~@x", "!#$&'*?^_`{|}~", "x"},
        {"\"a b@c<>\\\"d\\\\\"@x", "\"a b@c<>\\\"d\\\\\"", "x"},
        {"\"\"@x", "\"\"", "x"},
        {"<\"<a>\"@x>", "\"<a>\"", "x"},
        {"a@my_host.1st-x", "a", "my_host.1st-x"},

        {"a@[IPv6:2001:db8::1]", "a", "[IPv6:2001:db8::1]"},
        {"a@[tag:any.thing]", "a", "[tag:any.thing]"},
        {"j\xC3\xBCrgen@b\xC3\xBC"
         "cher.example",
         "j\xC3\xBCrgen",
         "b\xC3\xBC"
         "cher.example"},
        {"\xF0\x9F\x93\xA7@x", "\xF0\x9F\x93\xA7", "x"},
        {long_local + "@x", long_local, "x"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.address.substr(0, 60));
        RT record;
        ASSERT_EQ(RecipParse(row.address, &record, 1), 1);
        ASSERT_EQ(record.addresses.size(), 1U);
        EXPECT_EQ(record.addresses[0].full, row.local + "@" + row.domain);
        EXPECT_EQ(record.addresses[0].local, row.local);
        EXPECT_EQ(record.addresses[0].domain, row.domain);
        Clear_RT(&record);
        EXPECT_TRUE(record.addresses.empty());
    }
}

TEST_F(Address, RefusesEverythingElse)
{
    std::vector<std::string> rows = {"",       "a@x\r\n",    "a@x\r\nBcc: b@x",
                                     "a\nb@x", "\"a\nb\"@x", "\"a\\\nb\"@x"};
    std::istringstream lines(ReadFile(DataPath("refused_addresses.txt")));
    for (std::string line; std::getline(lines, line);)
        rows.push_back(line);
    ASSERT_GT(rows.size(), 60U);
    rows.insert(rows.end(),
                {std::string(999, 'a') + "@x", "a@" + std::string(100'000, 'x'),
                 std::string("a\0@x", 4), std::string("a@x\0", 4), std::string("a@x\0.y", 6)});
    for (const std::string& address : rows) {
        SCOPED_TRACE(EscapeForLog(address.substr(0, 60).c_str()));
        RT record;
        record.addresses.push_back({"o@o", "o", "o"});  // of a call before
        EXPECT_EQ(RecipParse(address, &record, 1), 0);
        EXPECT_TRUE(record.addresses.empty());
    }
}

TEST_F(Address, KnowsSafeFolderNames)
{
    const std::string long_name(253, 'a');
    for (const std::string& list :
         {std::string("list@example.org"), std::string("a%2Fb@x"), std::string("-owner@x"),
          std::string("\"..\"@x"), long_name + "@x"})
        EXPECT_TRUE(IsSafeFolderName(list)) << list;
    for (const std::string& list :
         {std::string("..@x"), std::string("a/b@x"), std::string("../x@y"), std::string("\"/\"@x"),
          std::string(), std::string(".."), std::string("list"), std::string("<a@x>"),
          std::string("a\n@x"), std::string("a@x/"), std::string("a@[t:/]"),
          std::string("a@x\0", 4), long_name + "a@x"})
        EXPECT_FALSE(IsSafeFolderName(list)) << list;
}

}  // namespace
}  // namespace dl::testing
