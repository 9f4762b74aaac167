// The archive library from the outside: names, password file, pages of a small archive, removal.
#include "tests/platform/archive/archive_fixture.h"

#include <sys/stat.h>

#include <thread>

#include "platform/address/address.h"

namespace dl
{
namespace
{

using testing::Mail;

class Archive : public testing::ArchiveFixture
{
 protected:
    void PostExamples()
    {
        Post(1, {.subject = "Frost tonight", .body = "Cover the beans.\r\n"});
        Post(2, {.subject = "Re: Frost tonight",
                 .from = "=?utf-8?q?Bj=C3=B6rn?= <bjoern@example.net>",
                 .more = "In-Reply-To: <m1@example.com>\r\n",
                 .body = "> Cover the beans.\r\n\r\nDone; ask carl@example.org.\r\n"});
        Post(3, {.subject = "Seeds",
                 .more = "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=b\r\n",
                 .body = "--b\r\n\r\nSee the list.\r\n--b\r\n"
                         "Content-Type: text/csv; name=\"seeds.csv\"\r\n"
                         "Content-Transfer-Encoding: base64\r\n\r\nYSxiCg==\r\n--b--\r\n"});
    }
};

std::string What(const std::function<void()>& call)
{
    try {
        call();
    } catch (const CDlArchiveException& problem) {
        return problem.message;
    }
    return "nothing thrown";
}

TEST_F(Archive, IdsComeFromFileNamesOnly)
{
    EXPECT_EQ(CDlArchive::GetId("0001A2B3.msg"), 0x1A2B3UL);
    EXPECT_EQ(CDlArchive::GetId("/var/spool/FFFFFFFF.msg"), 0xFFFFFFFFUL);
    for (const char* name : {"", "1.msg", "0001a2b3.msg", "0001A2B3.MSG", "0001A2B3",
                             "00001A2B3.msg", "0001A2B3.msg/", "-001A2B3.msg", "0001A2B3.msg\n"}) {
        SCOPED_TRACE(name);
        EXPECT_THROW((void)CDlArchive::GetId(name), CDlArchiveException);
    }
}

TEST_F(Archive, ThePasswordFileKeepsOneLinePerUser)
{
    CDlArchive archive;
    archive.SetList(list);
    archive.GetArchivePath();
    const std::string file = ArchivePath() + "/htpasswd";
    struct Row {
        const char *name, *before, *line;
        const char* want;  // null: refused
    };
    const Row rows[] = {
        {"first line of a new file", nullptr, "anna:$1$x", "anna:$1$x\n"},
        {"another user is appended", "anna:1\n", "bert:2\r\n", "anna:1\nbert:2\n"},
        {"the user's line is replaced in its place", "a:1\nb:2\nc:3\n", "b:9", "a:1\nb:9\nc:3\n"},
        {"a file without last line end", "a:1", "b:2", "a:1\nb:2\n"},
        {"a user twice becomes one", "a:1\nA:2\n", "a:3", "a:3\n"},
        {"a name that begins as another", "anna:1\n", "ann:2", "anna:1\nann:2\n"},

        {"no colon", "a:1\n", "a", nullptr},
        {"no user", "a:1\n", ":x", nullptr},
        {"a second line inside", "a:1\n", "a:2\nroot:3", nullptr},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove(file);
        if (row.before)
            Write("data/" + list + "/archive/htpasswd", row.before);
        if (!row.want) {
            EXPECT_THROW(archive.UpdateRemoteFile(row.line), CDlArchiveException);
            EXPECT_EQ(testing::ReadFile(file), row.before);
            continue;
        }
        archive.UpdateRemoteFile(row.line);
        EXPECT_EQ(testing::ReadFile(file), row.want);
        struct stat status = {};
        ASSERT_EQ(::stat(file.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0640U);
    }
}

TEST_F(Archive, FailuresSayWhatIsWrongInOneLine)
{
    EXPECT_EQ(What([&] { CDlArchive::AddArchive(ArchivePath(), 7); }),
              "there is no message " + ArchivePath() + "/00000007.msg to be archived");
    EXPECT_EQ(What([&] { CDlArchive::GenerateIndexPages("../etc@example.org"); }),
              "no archive for the list name ../etc@example.org");
    Write("data/" + list + "/archive/00000007.msg", "x");
    Write("data/" + list + "/archive/index.db", std::string(5000, 'x'));
    EXPECT_EQ(What([&] { CDlArchive::AddArchive(ArchivePath(), 7); }),
              "the archive index " + ArchivePath() + "/index.db is damaged; rebuild the archive");
    EXPECT_EQ(What([&] { CDlArchive::RemoveArchive("none@example.org", 7); }),
              "the archive of none@example.org has no message 00000007");
}

TEST_F(Archive, AnIndexOfANewerProgramIsRefused)
{
    Post(1, {});
    ASSERT_EQ(
        std::system(("sqlite3 '" + ArchivePath() + "/index.db' 'PRAGMA user_version=7'").c_str()),
        0);
    const std::string want = "the archive index " + ArchivePath() +
                             "/index.db was written by a newer version of this program (format 7, "
                             "this one knows formats up to 3)";
    EXPECT_EQ(What([&] { CDlArchive::AddArchive(ArchivePath(), 1); }), want);
    EXPECT_EQ(What([&] { Generate(); }), want);
    EXPECT_EQ(What([&] { CDlArchive::RebuildArchive(list); }), want);
    EXPECT_EQ(What([&] { (void)CDlArchive::LeftOut(list); }), want);
}

TEST_F(Archive, AnEmptyArchiveHasAFrontPage)
{
    Generate();
    EXPECT_NE(Page("index.html").find("No postings yet."), std::string::npos);
    CheckPages();
}

// What each page of a small archive says.
TEST_F(Archive, PagesShowThePostings)
{
    PostExamples();
    CDlArchive::DescribeArchive(list,
                                {"Garden talk", "All about <gardens>", "https://a.example/garden"});
    Generate();
    CheckPages();
    const std::pair<const char*, const char*> rows[] = {
        {"index.html", "<title>Garden talk</title>"},
        {"index.html", "<h1><bdi>Garden talk</bdi></h1>"},
        {"index.html", "All about &lt;gardens&gt;"},
        {"index.html", "garden at lists.example.org"},
        {"index.html", "3 postings"},
        {"index.html", "<a href=\"month/2004-11.html\">November</a>"},
        {"month/2004-11.html", "Re: Frost tonight"},
        {"threads/2004-11.html", "2 postings"},
        {"threads/index.html", "Seeds"},
        {"authors/index.html", "Björn"},
        {"feed.xml", "<summary>Done; ask ca…@example.org.</summary>"},
        {"feed.xml", "href=\"https://a.example/garden/index.html\""},
        {"search/1.js", "\"Bj\\u00f6rn\",\"Re: Frost tonight\""},
        {"search.html", " data-shards=\"1\""},
    };
    for (const auto& [page, part] : rows)
        EXPECT_NE(Page(page).find(part), std::string::npos) << page << ": " << part;
    const std::string reply = PostingPage("Re: Frost tonight");
    EXPECT_NE(reply.find("<dt>In reply to</dt>"), std::string::npos);
    EXPECT_NE(reply.find("<blockquote>"), std::string::npos);
    EXPECT_NE(PostingPage("Frost tonight").find("<h2>Replies</h2>"), std::string::npos);
    const auto files = Inodes();
    const auto csv = std::find_if(files.begin(), files.end(), [](const auto& file) {
        return file.first.ends_with("/1-seeds.csv");
    });
    ASSERT_NE(csv, files.end());
    EXPECT_EQ(Page(csv->first), "a,b\n");
}

TEST_F(Archive, APageKeepsItsAddressMadeFromTheMessageId)
{
    Post(1, {.subject = "One", .id = "same@example.com"});
    Generate();
    const auto first = PostingPages("One");
    // What sha256sum says of "same@example.com".
    EXPECT_EQ(first, std::vector<std::string>{"p/6a/6a190f20c8658a66abc6.html"});
    Post(2, {.subject = "Two", .id = "same@example.com"});
    Post(3, {.subject = "Three", .id = "same@example.com"});
    Generate();
    EXPECT_EQ(PostingPages("One"), first);
    const std::string stem = first.front().substr(0, first.front().size() - 5);
    EXPECT_EQ(PostingPages("Two"), std::vector<std::string>{stem + "-2.html"});
    CDlArchive::RemoveArchive(list, 1);
    CDlArchive::RebuildArchive(list);
    EXPECT_EQ(PostingPages("Three"), std::vector<std::string>{stem + "-3.html"});
    EXPECT_FALSE(std::filesystem::exists(PagePath(first.front())));
    CheckPages();
}

TEST_F(Archive, ARemovedPostingIsNowhere)
{
    PostExamples();
    Post(4,
         {.subject = "Xylophone",
          .from = "Zora Quux <zora@example.com>",
          .more = "In-Reply-To: <m1@example.com>\r\nMIME-Version: 1.0\r\n"
                  "Content-Type: multipart/mixed; boundary=b\r\n",
          .body = "--b\r\n\r\nPlinkplonk.\r\n--b\r\nContent-Type: image/png; name=\"klang.png\"\r\n"
                  "\r\nxyz\r\n--b--\r\n"});
    Post(5, {.subject = "Re: Music", .more = "In-Reply-To: <m4@example.com>\r\n"});
    Generate();
    ASSERT_NE(Everything().find("Plinkplonk"), std::string::npos);
    CDlArchive::RemoveArchive(list, 4);
    CheckPages();
    const std::string all = Everything();
    for (const char* word : {"Xylophone", "Plinkplonk", "plinkplonk", "Zora", "klang"})
        EXPECT_EQ(all.find(word), std::string::npos) << word;
    EXPECT_FALSE(std::filesystem::exists(ArchivePath() + "/00000004.msg"));
    EXPECT_EQ(testing::ReadFile(ArchivePath() + "/index.db").find("linkplonk"), std::string::npos);
    // Its reply hangs on its parent.
    EXPECT_NE(PostingPage("Re: Music").find("<dt>In reply to</dt>"), std::string::npos);
    EXPECT_EQ(What([&] { CDlArchive::RemoveArchive(list, 4); }),
              "the archive of garden@lists.example.org has no message 00000004");
    CDlArchive::RebuildArchive(list);
    EXPECT_EQ(Everything().find("Xylophone"), std::string::npos);
}

TEST_F(Archive, ARebuildMakesTheSamePages)
{
    PostExamples();
    Post(4, {.subject = "Re: Seeds"});
    Generate();
    const std::string before = Everything();
    CDlArchive::RebuildArchive(list);
    EXPECT_EQ(Everything(), before);
    EXPECT_FALSE(std::filesystem::exists(ArchivePath() + "/html.new"));
    EXPECT_FALSE(std::filesystem::exists(PagePath(".rebuild")));
    // Also over an index that is damaged.
    Write("data/" + list + "/archive/index.db", std::string(5000, 'x'));
    std::filesystem::remove(ArchivePath() + "/index.db-wal");
    CDlArchive::RebuildArchive(list);
    EXPECT_EQ(PostingPages("Seeds").size(), 1U);
    CheckPages();
}

TEST_F(Archive, APostingThatIsFiledAgainReplacesTheOld)
{
    PostExamples();
    Generate();
    Post(3, {.subject = "Other"});
    Generate();
    EXPECT_TRUE(PostingPages("Seeds").empty() || Page(PostingPages("Seeds")[0]).empty());
    EXPECT_EQ(PostingPages("Other").size(), 1U);
    EXPECT_EQ(Everything().find("seeds_csv"), std::string::npos);
    CheckPages();
}

TEST_F(Archive, AnUnreadablePostingIsLeftOutAndTheRestIsShown)
{
    PostExamples();
    Post(4, {.subject = "Empty"});
    Write("data/" + list + "/archive/00000004.msg", "");
    Post(5, {.subject = "Gone"});
    std::filesystem::remove(ArchivePath() + "/00000005.msg");
    log.ExpectError(
        "The archive of garden@lists.example.org leaves out 00000004.msg, which cannot "
        "be read as a message: it is empty");
    log.ExpectError("leaves out 00000005.msg");
    Generate();
    Generate();  // says it once
    EXPECT_EQ(PostingPages("Seeds").size(), 1U);
    CheckPages();

    // Each ends in its way: mended and read again, or taken out.
    const auto left_out = CDlArchive::LeftOut(list);
    ASSERT_EQ(left_out.size(), 2U);
    EXPECT_EQ(left_out[1].cause, "it cannot be opened: No such file or directory");
    EXPECT_EQ(left_out[1].since, clock.now);
    Write("data/" + list + "/archive/00000004.msg", testing::MessageOf(4, {.subject = "Empty"}));
    CDlArchive::RemoveArchive(list, 5);
    CDlArchive::RetryLeftOut(list);
    Generate();
    EXPECT_EQ(PostingPages("Empty").size(), 1U);
    EXPECT_TRUE(CDlArchive::LeftOut(list).empty());
}

// The service files postings while the worker writes pages.
TEST_F(Archive, FilingAndWritingGoOnAtTheSameTime)
{
    constexpr unsigned long kPostings = 60;
    std::thread writer([&] {
        for (int i = 0; i < 6; ++i)
            CDlArchive::GenerateIndexPages(list);
    });
    std::thread rebuilder([&] { CDlArchive::RebuildArchive(list); });
    for (unsigned long id = 1; id <= kPostings; ++id) {
        const ArchiveLock archive(SharedArchive());
        archive->SetList(list);
        archive->GetArchivePath();
        Post(id, {.subject = "S" + std::to_string(id)});
    }
    writer.join();
    rebuilder.join();
    Generate();
    EXPECT_NE(Page("index.html").find("60 postings"), std::string::npos);
    CheckPages();
}

}  // namespace
}  // namespace dl
