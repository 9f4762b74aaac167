// What both back ends of the directory promise: one suite, the same entries, the same answers.
#include <thread>

#include "tests/contract/directory_contract.h"

namespace dl::testing
{
namespace
{

using Texts = std::vector<std::string>;

std::string Joined(const Texts& texts)
{
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : " ") + text;
    return all;
}

class DirectoryContract : public DirectoryTest, public ::testing::WithParamInterface<DirectoryKind>
{
 protected:
    void SetUp() override
    {
        if (GetParam() == DirectoryKind::kServer)
            DL_NEED_SLAPD();
    }
    void Begin(const std::string& entries, const std::string& more = "")
    {
        DirectoryTest::Begin(GetParam(), entries, more);
    }
    // The server dies, or the file is gone.
    void Down()
    {
        if (server_)
            server_->Kill();
        else
            std::filesystem::rename(file_, file_ + ".away");
    }
    void Up()
    {
        if (server_)
            ASSERT_TRUE(server_->Start()) << server_->Reason();
        else
            std::filesystem::rename(file_ + ".away", file_);
    }
};

INSTANTIATE_TEST_SUITE_P(Both, DirectoryContract,
                         ::testing::Values(DirectoryKind::kServer, DirectoryKind::kFile),
                         [](const auto& row) {
                             return row.param == DirectoryKind::kServer ? "Server" : "File";
                         });

const std::string kEntries = ReadFile(DataPath("directory.ldif"));

TEST_P(DirectoryContract, FiltersFindTheSameEntries)
{
    Begin(kEntries, "BaseDN = dc=org\n");
    // A file is read to its end for each, and then, left alone for a while, by its index.
    for (int round = 0; round < 2; ++round) {
        for (const auto& row : ReadTable("tables/directory.txt", "filters")) {
            SCOPED_TRACE(row.at(0));
            const SearchReq result = Search(row.at(1), "");
            EXPECT_FALSE(result.failed);
            EXPECT_EQ(Joined(Values(result, "mail")), row.at(2));
            EXPECT_EQ(result.Empty(), row.at(2).empty());
        }
        EXPECT_TRUE(Search("(mail=far@other.net)").Empty()) << "it is not below the base";
        EXPECT_EQ(Search("(mail=odd@example.org)").entries.size(), 1U);
        EXPECT_EQ(Search("(mail=odd@example.org)", "dc=org", 1).entries.size(), 0U);
        log.ExpectError("below \"dc=nowhere\"");
        EXPECT_TRUE(Search("(mail=odd@example.org)", "dc=nowhere").failed);
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
    }
}

TEST_P(DirectoryContract, WhatIsNoFilterIsAFailedSearch)
{
    Begin(kEntries);
    for (const std::string filter : {"", "mail", "(mail=a", "(mail=a)x", "(&(mail=a)",
                                     "(!(mail=a)(mail=b))", "(mail=\\4)", "(&!(mail=a))", "(=a)"}) {
        SCOPED_TRACE(filter);
        log.ExpectError("search of " + filter);
        EXPECT_TRUE(Search(filter).failed);
    }
}

TEST_P(DirectoryContract, AnEntryKeepsItsValuesInOrderAndTheSchemasNames)
{
    Begin(kEntries);
    EXPECT_EQ(Members(), (Texts{"Immediate;Ann@example.org", "Digest;bob@example.org",
                                "Immediate;Blocked;eve@example.org"}));
    SearchReq result = Search("(mail=news@example.org)");
    ASSERT_EQ(result.entries.size(), 1U);
    EXPECT_EQ(result.entries[0].dn, "mail=news@example.org,dc=example,dc=org");
    // The file wrote "MODE" and "x-KVTBLaction".
    EXPECT_EQ(Values(result, "mode"), Texts{"1"});
    EXPECT_EQ(Values(result, "x-kvtblaction"), Texts{"rbl.example.net,discard"});
    const SearchReq moved = std::move(result);  // names stay valid
    EXPECT_EQ(Values(moved, "mode"), Texts{"1"});

    const SearchReq config = Search("(&(objectclass=qvconfig)(cn=PreProcessor))");
    ASSERT_EQ(config.entries.size(), 1U);
    EXPECT_EQ(Values(config, "mail"), Texts{});
    EXPECT_EQ(Values(config, "x-kvtblaction"),
              (Texts{"rbl.example.net,P,d", "rbl2.example.net,S,i"}));
}

TEST_P(DirectoryContract, BaseAndScope)
{
    Begin(kEntries);
    const struct {
        const char* base;
        int scope;
        std::size_t entries;
    } kRows[] = {
        {"dc=example,dc=org", 2, 2},
        {"DC=Other, dc=NET", 2, 1},
        {"dc=net", 1, 0},
        {"dc=other,dc=net", 1, 1},
        {kStaff, 0, 1},
        {"dc=example,dc=org", 0, 0},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(std::string(row.base) + " " + std::to_string(row.scope));
        const SearchReq result = Search("objectclass=qvlist", row.base, row.scope);
        EXPECT_FALSE(result.failed);
        EXPECT_EQ(result.entries.size(), row.entries);
    }
    for (const std::string base : {"dc=nowhere", "no name"}) {
        log.ExpectError("below \"" + base + "\"");
        EXPECT_TRUE(Search("objectclass=qvlist", base.c_str()).failed);
    }
}

TEST_P(DirectoryContract, ANullBaseIsTheConfiguredOne)
{
    Begin(kEntries, "BaseDN = dc=other,dc=net\n");
    EXPECT_EQ(Values(Search("objectclass=qvlist"), "mail"), Texts{"far@other.net"});
    EXPECT_EQ(Search("objectclass=qvlist", "").entries.size(), 3U);
}

TEST_P(DirectoryContract, AnAnswerComesEntryByEntryWithWhatIsAskedFor)
{
    constexpr char kLists[] = "objectclass=qvlist";
    Begin(kEntries);
    const struct {
        const char* name;
        SearchQuery query;
        const char* want;
    } kRows[] = {
        {"the addresses",
         {.filter = kLists, .attributes = {"MAIL"}},
         "mail=staff@example.org, mail=news@example.org mail=press@example.org, "
         "mail=far@other.net, "},
        {"the first",
         {.filter = kLists, .attributes = {"mail"}, .limit = 1},
         "mail=staff@example.org, "},
        {"more than there are",
         {.filter = kLists, .attributes = {"mode"}, .limit = 9},
         ", mode=1, , "},
        {"names alone",
         {.filter = kLists, .attributes_only = true, .attributes = {"mail", "mode"}},
         "mail=, mail= mode=, mail=, "},
        {"nothing", {.filter = kLists, .attributes = {"1.1"}}, ", , , "},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        ldapClient client;
        ASSERT_TRUE(Open(&client));
        NamePool names;
        std::string came;
        EXPECT_TRUE(client.ForEachEntry(row.query, &names, [&came](SearchEntry&& entry) {
            std::string one;
            for (const SearchAttribute& attribute : entry.attributes)
                one +=
                    (one.empty() ? "" : " ") + std::string(attribute.name) + "=" + attribute.value;
            came += one + ", ";
        }));
        EXPECT_EQ(came, row.want);
    }
}

TEST_P(DirectoryContract, AMarkTellsTheDirectoryAndWhetherItChanged)
{
    Begin(kEntries, "BaseDN = dc=example,dc=org\n");
    const auto mark = [this](const std::string& user, const std::string& password) {
        ldapClient client;
        EXPECT_TRUE(Open(&client, user, password));
        return client.Mark();
    };
    const auto ours = [&] { return mark(Slapd::kServiceDn, Slapd::kServicePassword); };
    std::this_thread::sleep_for(std::chrono::milliseconds(60));  // the file's last tick is over
    const DirectoryMark before = ours();
    EXPECT_EQ(ours(), before);
    EXPECT_EQ(before.state.empty(), server_ != nullptr);
    EXPECT_EQ(Modify(kStaff, {Add("Digest;new@b")}), ModifyResult::kDone);
    EXPECT_EQ(ours().source, before.source);
    EXPECT_EQ(ours() == before, server_ != nullptr);
    // Right behind a change another one would not show.
    EXPECT_EQ(ours() == ours(), server_ != nullptr);
    EXPECT_EQ(mark("", "") == ours(), false);
    Configure(ReadFile(Path("conf/qvms.conf")) + "BaseDN = dc=org\n");
    EXPECT_NE(ours().source, before.source);
}

TEST_P(DirectoryContract, ManyListsAndManyMembersComeWhole)
{
    std::string entries;
    Texts addresses;
    for (int i = 0; i < 1200; i++) {
        addresses.push_back("list" + std::to_string(i) + "@example.org");
        entries += ListEntry(addresses.back(), {"Immediate;a@example.org"});
    }
    Texts members;
    for (int i = 0; i < 3000; i++)
        members.push_back("Immediate;member" + std::to_string(i) + "@example.org");
    Begin(entries + ListEntry("big@example.org", members));
    addresses.emplace_back("big@example.org");
    EXPECT_EQ(Values(Search("objectclass=qvlist"), "mail"), addresses);
    EXPECT_EQ(Members("big@example.org"), members);
}

TEST_P(DirectoryContract, ChangesOfOneValue)
{
    Begin(kEntries);
    using enum ModifyResult;
    const std::string longest = "Immediate;" + std::string(501, 'x');
    const std::string news = "mail=news@example.org,dc=example,dc=org";
    const std::string spelled = "MAIL=Staff@example.org, DC=example,DC=org";
    const std::string bob = "Digest;bob@example.org";
    const std::string ann = "Immediate;Ann@example.org";
    const struct {
        const char* name;
        std::vector<AttributeChange> changes;
        ModifyResult want;
        Texts added = {}, removed = {};
        std::string entry = kStaff;
    } kRows[] = {
        {"add", {Add("Digest;new@b")}, kDone, {"Digest;new@b"}},
        {"the same in other letters", {Add("IMMEDIATE;ann@EXAMPLE.org")}, kAlready},
        {"delete in other letters", {Delete("digest;BOB@example.org")}, kDone, {}, {bob}},
        {"delete what is not there", {Delete("Immediate;bob@example.org")}, kNotThere},
        {"delete an attribute that is not there", {Delete("x", "description")}, kNotThere},
        {"511 bytes", {Add(longest)}, kDone, {longest}},
        {"512 bytes", {Add(longest + "x")}, kRefused},
        {"empty value", {Add("")}, kRefused},
        {"a NUL", {Add(std::string("a\0b", 3))}, kRefused},
        {"no second line",
         {Add("Digest;a@b\nlistmember: c")},
         kDone,
         {"Digest;a@b\nlistmember: c"}},
        {"letters beyond ASCII", {Add("Digest;j\xC3\xBCr@b")}, kDone, {"Digest;j\xC3\xBCr@b"}},
        {"not UTF-8", {Add("Digest;j\xFCrgen@example.org")}, kRefused},
        {"no such entry", {Add("Digest;a@b")}, kRefused, {}, {}, "mail=x,dc=example,dc=org"},
        {"no name of an entry", {Add("Digest;a@b")}, kRefused, {}, {}, "nobody"},
        {"no name of an attribute", {Add("x", "listmember\nmail")}, kRefused},
        {"two changes", {Add("Digest;ann@b"), Delete(ann)}, kDone, {"Digest;ann@b"}, {ann}},
        {"the second cannot be made", {Add("Digest;x@b"), Delete("Digest;y@z")}, kNotThere},
        {"added and deleted again", {Add("Digest;x@b"), Delete("Digest;x@b")}, kDone},
        {"a second single value", {Add("0", "mode")}, kRefused, {}, {}, news},
        {"the value that names the entry", {Delete("staff@example.org", "mail")}, kRefused},
        {"the entry in other letters", {Add("Digest;o@b")}, kDone, {"Digest;o@b"}, {}, spelled},
    };
    Texts want = Members();
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Modify(row.entry, row.changes), row.want);
        want.insert(want.end(), row.added.begin(), row.added.end());
        for (const std::string& gone : row.removed)
            std::erase(want, gone);
        EXPECT_EQ(Members(), want);
    }
}

TEST_P(DirectoryContract, EntriesComeAndGo)
{
    Begin(kEntries);
    ldapClient client;
    ASSERT_TRUE(Open(&client));
    const std::string name = "mail=new@example.org,dc=example,dc=org";
    const std::vector<SearchAttribute> attributes = {{"objectClass", "qvlist"},
                                                     {"listmember", "Digest;a@example.org"},
                                                     {"mail", "new@example.org"},
                                                     {"listmember", "Digest;b@example.org"}};
    EXPECT_EQ(client.AddEntry(name, attributes), ModifyResult::kDone);
    EXPECT_EQ(Members("new@example.org"), (Texts{"Digest;a@example.org", "Digest;b@example.org"}));
    EXPECT_EQ(client.AddEntry(name, attributes), ModifyResult::kAlready);
    // The value of the name is put in.
    const std::string other = "mail=x@example.org,dc=example,dc=org";
    EXPECT_EQ(client.AddEntry(other, {{"objectClass", "qvlist"}, {"mail", "y@example.org"}}),
              ModifyResult::kDone);
    EXPECT_EQ(Values(Search("(mail=x@example.org)"), "mail"),
              (Texts{"y@example.org", "x@example.org"}));
    EXPECT_EQ(client.DeleteEntry(other), ModifyResult::kDone);
    EXPECT_EQ(client.AddEntry(other, {{"mail", "x@example.org"}}), ModifyResult::kRefused);
    EXPECT_EQ(client.DeleteEntry(name), ModifyResult::kDone);
    EXPECT_EQ(client.DeleteEntry(name), ModifyResult::kNotThere);
    EXPECT_EQ(client.DeleteEntry("dc=example,dc=org"), ModifyResult::kRefused);
    EXPECT_EQ(Search("objectclass=qvlist").entries.size(), 3U);
}

TEST_P(DirectoryContract, AnyTextMayStandInFiltersAndNames)
{
    Begin(kEntries);
    ldapClient client;
    ASSERT_TRUE(Open(&client));
    for (const std::string text :
         {"a*b", "(a)", "a)(mail=*", "back\\slash", "x,dc=example", "a+b=c", "\"<quoted>\";",
          "#hash", "-dash", "semi;colon:", "tab\there", "line\nbreak", "j\xC3\xBCrgen",
          ":< file:///etc/passwd", "\\2a"}) {
        SCOPED_TRACE(text);
        const std::string name = "cn=" + EscapeNameValue(text) + ",dc=example,dc=org";
        ASSERT_EQ(client.AddEntry(name, {{"objectClass", "qvconfig"}, {"cn", text}}),
                  ModifyResult::kDone);
        const std::string filter = "(&(objectclass=qvconfig)(cn=" + EscapeFilterValue(text) + "))";
        EXPECT_EQ(Values(Search(filter), "cn"), Texts{text});
        EXPECT_EQ(client.DeleteEntry(name), ModifyResult::kDone);
        EXPECT_TRUE(Search(filter).Empty());
    }
}

TEST_P(DirectoryContract, TwoWritersLoseNothingAndReadersSeeWholeLists)
{
    Begin(kEntries);
    constexpr int kEach = 20;
    const auto add = [&](const char* who) {
        for (int i = 0; i < kEach; i++)
            EXPECT_EQ(Modify(kStaff, {Add("Digest;" + std::string(who) + std::to_string(i))}),
                      ModifyResult::kDone);
    };
    std::thread first(add, "first");
    std::thread second(add, "second");
    std::size_t seen = 3;
    for (int i = 0; i < 20; i++) {
        const std::size_t now = Members().size();
        EXPECT_GE(now, seen);
        seen = now;
    }
    first.join();
    second.join();
    EXPECT_EQ(Members().size(), 3U + 2 * kEach);
}

TEST_P(DirectoryContract, ALostDirectoryIsAFailureAndComesBack)
{
    Begin(kEntries);
    ldapClient client;
    ASSERT_TRUE(Open(&client));
    Down();
    log.ExpectError(server_ ? "search of objectclass=qvlist" : "lists.ldif: No such file");
    for (int i = 0; i < 2; i++) {
        const SearchReq result = client.ldapClientSearch(nullptr, 2, false, "objectclass=qvlist");
        EXPECT_TRUE(result.failed);
        EXPECT_TRUE(result.Empty());
    }
    log.ExpectError(server_ ? "change of mail=staff" : "lists.ldif: No such file");
    EXPECT_EQ(client.ldapClientModify(kStaff, {Add("Digest;new@example.org")}),
              ModifyResult::kUnreachable);
    EXPECT_NE(client.ldapClientConnect("127.0.0.1", server_ ? server_->Port() : 0), 0);
    EXPECT_NE(client.ldapClientBind(Slapd::kServiceDn, Slapd::kServicePassword), 0);
    client.ldapClientUnbind();
    Up();
    EXPECT_EQ(Members().size(), 3U);
    ASSERT_TRUE(Open(&client));
    EXPECT_FALSE(client.ldapClientSearch(nullptr, 2, false, "objectclass=qvlist").Empty());
}

}  // namespace
}  // namespace dl::testing
