// A refresh that reads only what has changed gives what a load of everything gives.

#include <unistd.h>

#include <ctime>

#include "tests/lists/lists_fixture.h"
#include "tests/support/slapd.h"

namespace dl::testing
{
namespace
{

constexpr char kAnn[] = "listmember: Immediate;ann@example.com\n";
constexpr char kAnnBlocked[] = "listmember: Immediate;Blocked;ann@example.com\n";

// Everything that a cache answers of its lists. Asking for members moves the list cursor.
std::string Dump(dllist* lists)
{
    std::vector<std::string> names;
    for (const char* name = lists->GetFirstList(); name; name = lists->GetNextList())
        names.emplace_back(name);
    std::string text;
    for (const std::string& list : names) {
        const char* path = lists->GetWelcomeTextFile(list);
        text += list + " mode " + std::to_string(lists->GetMode(list)) + " archive " +
                std::to_string(lists->GetArchiveFlag(list)) + " size " +
                std::to_string(lists->GetDigestSize(list)) + " welcome " + (path ? path : "-") +
                " spelled " + lists->GetSpelling(list) + " members";
        for (const char* mode : {"Immediate", "Digest"})
            for (const char* member = lists->GetFirstMember(list, mode); member;
                 member = lists->GetNextMember(list, mode))
                text += std::string(" ") + mode[0] + ";" + member +
                        (lists->IsMemberBlocked(list, member) ? " (blocked)" : "");
        text +=
            lists->GetSpamSettings(list)->IsWhitelistedSender("w@example.net") ? " white\n" : "\n";
    }
    return text;
}

struct DirectoryForm {
    const char* name;
    bool server;
    const char* config = "";  // of the server
};
void PrintTo(const DirectoryForm& form, std::ostream* out)
{
    *out << form.name;
}
constexpr DirectoryForm kForms[] = {
    {"File", false},
    {"Server", true},
    {"ServerWithTimesAlone", true, Slapd::kNoEntryCsn},
    {"ServerWithoutStamps", true, Slapd::kNoStamps},
};

class Refresh : public ListsFixture, public ::testing::WithParamInterface<DirectoryForm>
{
 protected:
    void SetUp() override
    {
        if (GetParam().server)
            DL_NEED_SLAPD();
    }
    void Begin(const std::string& entries)
    {
        clock.now = std::time(nullptr);  // the server has no other
        if (!GetParam().server)
            return Directory(Slapd::BaseEntries() + entries);
        server_ = std::make_unique<Slapd>(Path("slapd"), entries,
                                          Slapd::Options{.config = GetParam().config});
        ASSERT_TRUE(server_->Up()) << server_->Reason();
        Configure(server_->Settings());
    }
    // Change records (RFC 2849), by the server's own tool. To a file the same is done by `edit`:
    // what stands there, and what comes in its place.
    void Change(const std::string& records, const std::pair<std::string, std::string>& edit)
    {
        if (!GetParam().server) {
            std::string text = ReadFile(Path("conf/directory.ldif"));
            const std::size_t at = text.find(edit.first);
            ASSERT_NE(at, std::string::npos) << edit.first;
            return Directory(text.replace(at, edit.first.size(), edit.second));
        }
        std::string output;
        EXPECT_EQ(RunProgram(
                      {"/usr/bin/ldapmodify", "-x", "-H",
                       "ldap://127.0.0.1:" + std::to_string(server_->Port()), "-D", Slapd::kAdminDn,
                       "-w", Slapd::kAdminPassword, "-f", Write("change.ldif", records)},
                      &output),
                  0)
            << output;
    }

    std::unique_ptr<Slapd> server_;
};

INSTANTIATE_TEST_SUITE_P(Of, Refresh, ::testing::ValuesIn(kForms),
                         [](const auto& row) { return row.param.name; });

std::string Name(const std::string& list, const std::string& above = "dc=example,dc=org")
{
    return "dn: mail=" + list + "," + above + "\n";
}

std::string Entry(const std::string& list, const std::string& lines)
{
    return Name(list) + "objectClass: qvlist\nmail: " + list + "\n" + lines + "\n";
}

// The record that adds an entry.
std::string Add(std::string entry)
{
    return entry.insert(entry.find('\n') + 1, "changetype: add\n");
}

std::string Modify(const std::string& list, const std::string& lines)
{
    return Name(list) + "changetype: modify\n" + lines + "\n";
}

// The lists of which a refresh wrote "Found mailing list ...", and how many it counted.
std::string Found(const CapturedLog& log)
{
    const std::string found = "Found mailing list ";
    std::string text;
    for (const CapturedLog::Line& line : log.Lines())
        if (line.text.starts_with(found))
            text += line.text.substr(found.size()) + " ";
        else if (line.text.ends_with(" are found in Directory Server"))
            text += line.text.substr(0, line.text.find(' '));
    return text;
}

TEST_P(Refresh, GivesWhatALoadOfEverythingGives)
{
    const std::string a = "a@example.org";
    const std::string b = "b@example.org";
    const std::string again =
        "dn: cn=again,dc=example,dc=org\nobjectClass: qvlist\ncn: again\nmail: A@example.org\n\n";
    Begin(Entry(a, kAnn) + Entry(b, "mode: 1\n") + Entry("c@example.org", "") +
          Entry("d@example.org", "") + Entry("e@example.org", ""));
    ASSERT_TRUE(cache.InitCache());
    const struct {
        const char* name;
        std::string records;
        std::pair<std::string, std::string> edit;
        const char* found;
    } kRows[] = {
        {"nothing", "", {"", ""}, "5"},
        {"a member added",
         Modify(a, "add: listmember\nlistmember: Digest;Blocked;bob@example.com\n"),
         {kAnn, std::string(kAnn) + "listmember: Digest;Blocked;bob@example.com\n"},
         "a@example.org 5"},
        {"a member blocked",
         Modify(a,
                "delete: listmember\nlistmember: Immediate;ann@example.com\n-\n"
                "add: listmember\nlistmember: Immediate;Blocked;ann@example.com\n"),
         {kAnn, kAnnBlocked},
         "a@example.org 5"},
        {"an attribute changed",
         Modify(b, "replace: mode\nmode: 0\n"),
         {"mode: 1", "mode: 0"},
         "b@example.org 5"},
        {"again within the second",
         Modify(b, "replace: mode\nmode: 1\n-\nadd: welcometxtpath\nwelcometxtpath: /w\n"),
         {"mode: 0", "mode: 1\nwelcometxtpath: /w"},
         "b@example.org 5"},
        {"a list added",
         Add(Entry("new@example.org", "archive: 0\n")),
         {"dn: mail=e@", Entry("new@example.org", "archive: 0\n") + "dn: mail=e@"},
         "new@example.org 6"},
        {"an address in other letters",
         Modify("c@example.org", "replace: mail\nmail: C@example.org\n"),
         {"mail: c@", "mail: C@"},
         "C@example.org 6"},
        {"another first address",
         Modify("d@example.org", "replace: mail\nmail: first@example.org\nmail: d@example.org\n"),
         {"mail: d@", "mail: first@example.org\nmail: d@"},
         "first@example.org 6"},
        {"two entries of one address",
         Add(again),
         {"dn: mail=b@", again + "dn: mail=b@"},
         "A@example.org 7"},
        {"one of them changed",
         Modify(a, "delete: listmember\nlistmember: Immediate;Blocked;ann@example.com\n"),
         {kAnnBlocked, ""},
         "a@example.org 7"},
        {"renamed",
         Name("e@example.org") +
             "changetype: modrdn\nnewrdn: mail=z@example.org\ndeleteoldrdn: 1\n",
         {"dn: mail=e@example.org,dc=example,dc=org\nobjectClass: qvlist\nmail: e@",
          "dn: mail=z@example.org,dc=example,dc=org\nobjectClass: qvlist\nmail: z@"},
         "z@example.org 7"},
        {"moved",
         Name("z@example.org") + "changetype: modrdn\nnewrdn: mail=z@example.org\ndeleteoldrdn: 1\n"
                                 "newsuperior: dc=org\n",
         {"mail=z@example.org,dc=example,dc=org", "mail=z@example.org,dc=org"},
         "z@example.org 7"},
        {"no list any more",
         Modify("new@example.org", "delete: archive\n-\nadd: cn\ncn: x\n"),
         {"archive: 0", "cn: x"},
         "new@example.org 7"},
        {"deleted",
         Name("new@example.org") + "changetype: delete\n",
         {Entry("new@example.org", "cn: x\n"), ""},
         "6"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        Change(row.records, row.edit);
        log.Clear();
        ASSERT_TRUE(cache.RefreshCache());
        ASSERT_FALSE(cache.RefreshFailed());
        EXPECT_EQ(Found(log), row.found);
        dllist whole;
        ASSERT_TRUE(whole.InitCache());
        EXPECT_EQ(Dump(&cache), Dump(&whole));
    }
}

// A file that passes for a server: the stamps of its entries are what is written there.
class Stamps : public ListsFixture
{
 protected:
    Stamps() { directory.stamps_entries = true; }
    // Three lists that never change, and one with these lines.
    void Put(const std::string& lines)
    {
        std::string others;
        for (const char* list : {"x@example.org", "y@example.org", "z@example.org"})
            others += List(list, "entryCSN: 1\n");
        Directory(others + List("team@example.org", lines));
    }
    // Refreshes, and counts the searches.
    int Searches(bool done = true)
    {
        const int before = directory.Made(DirectoryCall::kSearch);
        EXPECT_NE(cache.RefreshCache() && !cache.RefreshFailed(), !done);
        return directory.Made(DirectoryCall::kSearch) - before;
    }
    std::string Welcome()
    {
        const char* path = cache.GetWelcomeTextFile("team@example.org");
        return path ? path : "none";
    }
};

// The clock stands at 11:33:20. Server and service may differ by five minutes.
TEST_F(Stamps, ShowThatAnEntryIsAsItWas)
{
    const struct {
        const char *name, *stamp;
        bool tells;
    } kRows[] = {
        {"sequence number", "entryCSN: 20041109113320.000001Z#000000#000#000000\n", true},
        {"a second that is over", "modifyTimestamp: 20041109112819Z\n", true},
        {"with a fraction", "modifyTimestamp: 20041109112819.5Z\n", true},
        {"a second that may go on", "modifyTimestamp: 20041109112820Z\n", false},
        {"one to come", "modifyTimestamp: 20991109112820Z\n", false},
        {"another zone", "modifyTimestamp: 20041109112819+0100\n", false},
        {"no time", "modifyTimestamp: yesterday\n", false},
        {"both", "modifyTimestamp: 20041109113320Z\nentryCSN: 2\n", true},
        {"none", "", false},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        cache.DeleteCache();
        Put(row.stamp);
        EXPECT_EQ(Searches(), 1);
        EXPECT_EQ(Searches(), row.tells ? 1 : 2);
        Put(std::string(row.stamp) + "welcometxtpath: /w\n");
        EXPECT_EQ(Searches(), row.tells ? 1 : 2);
        EXPECT_EQ(Welcome(), row.tells ? "none" : "/w");
        clock.now += 3600;  // everything is read once an hour
        EXPECT_EQ(Searches(), 1);
        EXPECT_EQ(Welcome(), "/w");
        clock.now -= 3600;  // and when the clock was set back
        EXPECT_EQ(Searches(), 1);
    }
}

TEST_F(Stamps, TheOnlyChangeIsReadByItself)
{
    Put("entryCSN: 1\n");
    ASSERT_TRUE(cache.InitCache());
    EXPECT_EQ(cache.Count(), 4);
    Put("entryCSN: 2\nwelcometxtpath: /new\n");
    for (const int search : {1, 2}) {
        SCOPED_TRACE(search);
        log.ExpectError("Could not read the mailing lists from Directory Server");
        directory.FailNth(DirectoryCall::kSearch, search);
        EXPECT_EQ(Searches(false), search);
        EXPECT_EQ(Welcome(), "none");
    }
    // It is changed once more before it is read: it has another address then.
    int searches = 0;
    directory.before_search = [&] {
        if (++searches == 2)
            Put("entryCSN: 3\nwelcometxtpath: /newer\nmail: b@example.org\n");
    };
    EXPECT_EQ(Searches(), 2);
    EXPECT_EQ(Welcome(), "/newer");
    searches = 0;
    Put("entryCSN: 4\n");
    directory.before_search = [&] {
        if (++searches == 2)
            Directory(List("x@example.org", "entryCSN: 1\n"));
    };
    EXPECT_EQ(Searches(), 3);
    EXPECT_EQ(Names(&cache), "x@example.org ");
    directory.before_search = nullptr;
    // More than half of the lists: everything is read at once.
    Put("entryCSN: 1\n");
    EXPECT_EQ(Searches(), 2);
    EXPECT_EQ(cache.Count(), 4);
    // Another name, another base: another directory, whatever its stamps.
    Configure(ReadFile(Path("conf/qvms.conf")) + "[Ldap]\nBaseDN = cn=team@example.org\n");
    EXPECT_EQ(Searches(), 1);
    EXPECT_EQ(Names(&cache), "team@example.org ");
}

class UnchangedFile : public ListsFixture
{
 protected:
    void Directory(const std::string& ldif)
    {
        ListsFixture::Directory(ldif);
        usleep(60'000);  // before that another change might not show
    }
};

TEST_F(UnchangedFile, IsNotRead)
{
    const std::string team = "team@example.org";
    const std::string alias =
        "dn: cn=alias\nobjectClass: qvlistowner\nmail: team-owner@example.org\nlistowner: ";
    std::filesystem::create_directories(Path("data/team@example.org/digest"));
    Directory(List(team, kAnn) + alias + "ann@example.com\n");
    ASSERT_TRUE(cache.InitCache());
    const auto refresh = [this] {
        const int before = directory.Made(DirectoryCall::kSearch);
        log.Clear();
        EXPECT_TRUE(cache.RefreshCache());
        return directory.Made(DirectoryCall::kSearch) - before;
    };
    EXPECT_STREQ(cache.GetListOwner(team), "ann@example.com");
    std::filesystem::remove(Path("data/team@example.org/digest/digest.dt"));
    EXPECT_EQ(refresh(), 0);
    EXPECT_EQ(Logged(), "6 1 mailing list(s) are found in Directory Server\n");
    EXPECT_EQ(Members(&cache, team, "Immediate"), "ann@example.com ");
    EXPECT_TRUE(std::filesystem::exists(Path("data/team@example.org/digest/digest.dt")));
    // Only the owner is asked for again.
    const int before = directory.Made(DirectoryCall::kSearch);
    EXPECT_STREQ(cache.GetListOwner(team), "ann@example.com");
    EXPECT_EQ(directory.Made(DirectoryCall::kSearch), before + 1);
    // A list that was added by itself gets its place, and its spelling.
    EXPECT_TRUE(cache.AddCache("TEAM@example.org"));
    EXPECT_EQ(refresh(), 1);
    EXPECT_EQ(Names(&cache), "team@example.org ");
    EXPECT_EQ(refresh(), 0);
    Directory(List(team, kAnn) + List("b@example.org") + alias + "bob@example.com\n");
    EXPECT_EQ(refresh(), 1);
    EXPECT_EQ(Found(log), "b@example.org 2");
    EXPECT_STREQ(cache.GetListOwner(team), "bob@example.com") << "the list was kept, not its owner";
}

}  // namespace
}  // namespace dl::testing
