// The file as a directory: what is left alone when it is changed, and what is refused when it is
// read.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "platform/directory/ldif_edit.h"
#include "tests/contract/directory_contract.h"

namespace dl::testing
{
namespace
{

class LdifDirectory : public DirectoryTest
{
 protected:
    void UseFile(const std::string& bytes)
    {
        file_ = Write("lists.ldif", bytes);
        Configure("[Ldap]\nFile = " + file_ + "\nTimeOut = 1\n");
    }
};

TEST_F(LdifDirectory, OnlyTheChangedLinesDiffer)
{
    for (const auto& row : ReadTable("tables/directory.txt", "changes of a file")) {
        SCOPED_TRACE(row.at(0));
        UseFile(row.at(1));
        const std::string value = row.at(2).substr(2);
        // The file shows what came of it.
        (void)Modify("mail=a,dc=x", {row.at(2)[0] == '+' ? Add(value) : Delete(value)});
        EXPECT_EQ(ReadFile(file_), row.at(3));
    }
}

TEST_F(LdifDirectory, EntriesGoToTheEndAndLeaveNoTrace)
{
    const std::string a = "dn: mail=a\nmail: a\n";
    const std::string n = "dn: mail=n\nobjectClass: qvlist\nmail: n\n";
    const struct {
        const char* name;
        std::string before, with, after;
    } kRows[] = {
        {"empty file", "", n, ""},
        {"behind an entry", a, a + "\n" + n, a + "\n"},

        {"no last line end", "dn: mail=a\nmail: a", a + "\n" + n, a + "\n"},
        {"CRLF", Crlf(a), Crlf(a + "\n" + n), Crlf(a + "\n")},
        {"a comment at the end", a + "\n# end\n", a + "\n# end\n\n" + n, a + "\n# end\n\n"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        UseFile(row.before);
        ldapClient client;
        ASSERT_TRUE(Open(&client));
        EXPECT_EQ(client.AddEntry("mail=n", {{"objectClass", "qvlist"}, {"mail", "n"}}),
                  ModifyResult::kDone);
        EXPECT_EQ(ReadFile(file_), row.with);
        EXPECT_EQ(client.DeleteEntry("mail=N"), ModifyResult::kDone);
        EXPECT_EQ(ReadFile(file_), row.after);
    }
    UseFile("# about n\n" + n + "\n\n# about a\n" + a);
    ldapClient client;
    ASSERT_TRUE(Open(&client));
    EXPECT_EQ(client.DeleteEntry("mail=n"), ModifyResult::kDone);
    EXPECT_EQ(ReadFile(file_), "# about n\n\n\n# about a\n" + a);
}

// Files lie in tests/data/broken_ldif.txt, each with what is said of it.
TEST_F(LdifDirectory, BrokenAndHostileFilesAreAnUnreachableDirectory)
{
    for (const DataBlock& row : ReadBlocks("broken_ldif.txt")) {
        SCOPED_TRACE(row.name);
        UseFile(row.in);
        ldapClient client;
        log.ExpectError("lists.ldif, " + row.want.substr(0, row.want.find('\n')));
        EXPECT_FALSE(Open(&client));
        EXPECT_TRUE(client.ldapClientSearch(nullptr, 2, false, "objectclass=*").failed);
        EXPECT_EQ(client.ldapClientModify("mail=a", {Add("Digest;b")}), ModifyResult::kUnreachable);
        EXPECT_EQ(ReadFile(file_), row.in);
    }
}

// Bytes that this process has read from files.
std::uint64_t BytesRead()
{
    return std::stoull(ReadFile("/proc/self/io").substr(std::strlen("rchar: ")));
}

TEST_F(LdifDirectory, OneAddressIsFoundWithoutReadingTheFile)
{
    std::string entries;
    for (int i = 0; i < 2000; ++i)
        entries += ListEntry("list" + std::to_string(i) + "@example.org", {"Digest;m@example.com"});
    const auto look_up = [this](const char* address, std::size_t want) {
        const std::uint64_t before = BytesRead();
        EXPECT_EQ(
            Search("(&(objectclass=qvlist)(mail=" + std::string(address) + "))").entries.size(),
            want);
        return BytesRead() - before;
    };
    UseFile(entries);
    usleep(60'000);
    EXPECT_GT(look_up("list7@example.org", 1), entries.size());
    EXPECT_LT(look_up("list1999@example.org", 1), 30'000U);
    EXPECT_LT(look_up("nobody@example.org", 0), 30'000U);
    // A change makes another file of it, and another index.
    EXPECT_EQ(Modify("mail=list7@example.org,dc=example,dc=org", {Add("Digest;new@example.com")}),
              ModifyResult::kDone);
    EXPECT_EQ(Members("list7@example.org").size(), 2U);
    UseFile("dn: mail=x\nobjectClass: qvlist\nmail: list1999@example.org\n" + entries);
    EXPECT_GT(look_up("list1999@example.org", 2), entries.size());
    usleep(60'000);
    (void)look_up("list1999@example.org", 2);
    EXPECT_LT(look_up("list1999@example.org", 2), 30'000U);
}

TEST_F(LdifDirectory, WhatIsNoRegularFileIsUnreachable)
{
    for (const auto& [path, error] : {std::pair{Path("missing"), "missing: No such file"},
                                      std::pair{Path("conf"), "conf is not a regular file"}}) {
        Configure("[Ldap]\nFile = " + path + "\n");
        log.ExpectError(error);
        ldapClient client;
        EXPECT_FALSE(Open(&client));
    }
}

// Files lie in tests/data/odd_ldif.txt, each with the members that are found there.
TEST_F(LdifDirectory, OddFilesAreRead)
{
    const std::string entry = "dn: mail=a\nobjectClass: qvlist\nmail: a\nlistmember: Digest;b\n";
    const std::string huge(10'000'000, 'x');
    std::vector<DataBlock> rows = ReadBlocks("odd_ldif.txt");
    rows.push_back({"CRLF", Crlf("version: 1\n\n\n" + entry), "Digest;b\n"});
    rows.push_back(
        {"a line of 10 MB", entry + "listmember: " + huge + "\n", "Digest;b\n" + huge + "\n"});
    for (const DataBlock& row : rows) {
        SCOPED_TRACE(row.name);
        UseFile(row.in);
        const SearchReq result = Search("objectclass=qvlist");
        EXPECT_FALSE(result.failed);
        std::string members;
        for (const std::string& member : Values(result, "listmember"))
            members += member + "\n";
        EXPECT_TRUE(members == row.want);  // too long to print
    }
}

TEST_F(LdifDirectory, AnEntryThatStandsTwiceIsNotChanged)
{
    const std::string entry = "dn: mail=a\nmail: a\n\n";
    UseFile(entry + entry);
    log.ExpectError("lists.ldif, line 4: the entry of line 1 again");
    EXPECT_EQ(Modify("mail=a", {Add("Digest;b")}), ModifyResult::kUnreachable);
    EXPECT_EQ(ReadFile(file_), entry + entry);
}

TEST_F(LdifDirectory, ModeOwnerAndLinkAreKept)
{
    UseFile("dn: mail=a\nmail: a\n");
    const bool root = getuid() == 0;
    ASSERT_EQ(chmod(file_.c_str(), 0640), 0);
    ASSERT_EQ(chown(file_.c_str(), root ? 65534 : getuid(), root ? 65534 : getgid()), 0);
    const std::string link = Path("link.ldif");
    std::filesystem::create_symlink(file_, link);
    Configure("[Ldap]\nFile = " + link + "\n");
    EXPECT_EQ(Modify("mail=a", {Add("Digest;b")}), ModifyResult::kDone);
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    for (const std::string& path : {file_, file_ + ".lock"}) {
        struct stat state = {};
        ASSERT_EQ(stat(path.c_str(), &state), 0);
        EXPECT_EQ(state.st_mode & 07777, 0640U);
        EXPECT_EQ(state.st_uid, root ? 65534 : getuid());
    }
    EXPECT_EQ(Search("listmember=Digest;b").entries.size(), 1U);
}

TEST_F(LdifDirectory, AFullDiskLeavesTheFileAndNoRubbish)
{
    UseFile("dn: mail=a\nmail: a\n" + std::string("# ") + std::string(20'000, 'x') + "\n");
    const std::string before = ReadFile(file_);
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    const rlimit small{8192, old.rlim_max};
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    log.ExpectError("lists.ldif: cannot write beside it: File too large");
    const ModifyResult result = Modify("mail=a", {Add("Digest;b")});
    setrlimit(RLIMIT_FSIZE, &old);
    (void)std::signal(SIGXFSZ, handler);
    EXPECT_EQ(result, ModifyResult::kUnreachable);
    EXPECT_EQ(ReadFile(file_), before);
    for (const auto& entry : std::filesystem::directory_iterator(Path("")))
        EXPECT_TRUE(!entry.is_regular_file() || entry.path() == file_ ||
                    entry.path() == file_ + ".lock")
            << entry.path();
}

TEST_F(LdifDirectory, ALockThatIsNotGivenBackIsGivenUp)
{
    UseFile("dn: mail=a\nmail: a\n");
    const std::string lock = Write("lists.ldif.lock", "");
    const int fd = open(lock.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    log.ExpectError("no lock on ");
    EXPECT_EQ(Modify("mail=a", {Add("Digest;b")}), ModifyResult::kUnreachable);
    close(fd);
    EXPECT_EQ(Modify("mail=a", {Add("Digest;b")}), ModifyResult::kDone);
}

TEST_F(LdifDirectory, WhatAnEditorSavedMeanwhileIsNotOverwritten)
{
    UseFile("dn: mail=a\nmail: a\n");
    std::FILE* file = std::fopen(file_.c_str(), "rb");
    struct stat read = {};
    ASSERT_EQ(fstat(fileno(file), &read), 0);
    const std::string saved = "dn: mail=b\nmail: b\n";
    Write("lists.ldif", saved + saved);
    std::string error;
    EXPECT_EQ(ApplyLdifEdits(file, read, file_, {{0, 0, "# x\n"}}, &error), LdifWrite::kChanged);
    EXPECT_EQ(ReadFile(file_), saved + saved);
    std::fclose(file);
}

}  // namespace
}  // namespace dl::testing
