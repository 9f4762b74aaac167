// Only what shows a change is written, and no interruption leaves anything broken or undone.
#include <algorithm>

#include "tests/platform/archive/archive_fixture.h"
#include "tests/support/failing_files.h"

namespace dl
{
namespace
{

using testing::Mail;

class Incremental : public testing::ArchiveFixture
{
 protected:
    // `count` postings by 30 authors, each fifth a reply to the one before.
    void PostMany(unsigned long count)
    {
        for (unsigned long id = 1; id <= count; ++id) {
            Mail mail;
            mail.subject = "Topic " + std::to_string(id);
            mail.from = "Author " + std::to_string(id % 30) + " <a" + std::to_string(id % 30) +
                        "@example.com>";
            if (id % 5 == 0)
                mail.more = "References: <m" + std::to_string(id - 1) + "@example.com>\r\n";
            Post(id, mail);
        }
    }
};

TEST_F(Incremental, OnePostingRewritesOnlyWhatShowsIt)
{
    constexpr unsigned long kMany = 650;
    PostMany(kMany);
    Generate();
    auto before = Inodes();
    Generate();
    EXPECT_EQ(Written(before), std::vector<std::string>{}) << "nothing came, nothing is written";

    Post(kMany + 1, {.subject = "Re: Topic 300",
                     .from = "Author 7 <a7@example.com>",
                     .more = "In-Reply-To: <m300@example.com>\r\n"});
    Generate();
    const auto written = Written(before);
    std::map<std::string, int> kinds;
    for (const std::string& path : written)
        ++kinds[path.substr(0, path.find('/'))];
    // Its own page, the last by date, the parent, and the thread's last (the parent again).
    EXPECT_EQ(kinds["p"], 3);
    EXPECT_EQ(kinds["t"], 1);
    EXPECT_EQ(kinds["a"], 1);
    EXPECT_EQ(kinds["month"], 1);
    EXPECT_EQ(kinds["threads"], 2);  // where the thread began, and those going on
    EXPECT_EQ(kinds["authors"], 2);
    EXPECT_EQ(kinds["search"], 1);
    EXPECT_EQ(kinds["index.html"], 1);
    EXPECT_EQ(kinds["feed.xml"], 1);
    EXPECT_EQ(written.size(), 13U);
    CheckPages();
}

// Postings that come in any order of dates make the same listings, and no page holds more than 200.
TEST_F(Incremental, ListingsAreCutIntoPages)
{
    constexpr unsigned long kMany = 450;
    for (unsigned long id = 1; id <= kMany; ++id) {
        const auto place = static_cast<int>(id * 7919 % kMany);
        Post(id, {.subject = "Re: One thread", .minute = place + 10});
        if (id % 50 == 0)
            Generate();
    }
    Generate();
    CheckPages();
    for (const char* listing : {"month/2004-11", "t/", "a/"}) {
        SCOPED_TRACE(listing);
        int entries = 0;
        int pages = 0;
        for (const auto& [path, inode] : Inodes()) {
            if (!path.starts_with(listing))
                continue;
            const std::string page = Page(path);
            int here = 0;
            for (std::size_t at = page.find("class=\"title\""); at != std::string::npos;
                 at = page.find("class=\"title\"", at + 1))
                ++here;
            EXPECT_LE(here, 200);
            entries += here;
            ++pages;
        }
        EXPECT_EQ(entries, static_cast<int>(kMany));
        EXPECT_GE(pages, 3);
    }
    // Through the pages by "next", the dates never go back.
    std::string name = "month/2004-11.html";
    std::string last;
    int seen = 0;
    while (!name.empty()) {
        const std::string page = Page(name);
        for (std::size_t at = page.find("datetime=\""); at != std::string::npos;
             at = page.find("datetime=\"", at + 1), ++seen) {
            const std::string date = page.substr(at + 10, 20);
            EXPECT_LE(last, date);
            last = date;
        }
        const std::size_t next = page.find("\" rel=\"next\"");
        const std::size_t begin =
            next == std::string::npos ? 0 : page.rfind("href=\"../", next) + 9;
        name = next == std::string::npos ? "" : page.substr(begin, next - begin);
        ASSERT_LE(seen, static_cast<int>(kMany));
    }
    EXPECT_EQ(seen, static_cast<int>(kMany));
    // Emptied again from any side, nothing stays.
    for (unsigned long id = 1; id <= kMany; id += 9)
        CDlArchive::RemoveArchive(list, id);
    CheckPages();
    EXPECT_NE(Page("index.html").find("400 postings"), std::string::npos);
}

TEST_F(Incremental, AFloodOfAuthorsIsCutIntoPagesToo)
{
    for (unsigned long id = 1; id <= 420; ++id)
        Post(id, {.from = "N" + std::to_string(id * 31 % 420) + " <n" + std::to_string(id) +
                          "@example.com>"});
    Generate();
    CheckPages();
    EXPECT_TRUE(std::filesystem::exists(PagePath("authors/3.html")));
    EXPECT_NE(Page("authors/index.html").find("from <bdi>N"), std::string::npos);
}

// After each point of failure the old pages are whole, and the next run makes what an uninterrupted
// one makes.
TEST_F(Incremental, AnyInterruptionIsMadeUpForByTheNextRun)
{
    enum class Deed { kGenerate, kRemove, kRebuild };
    struct Row {
        const char* name;
        Deed deed;
        int step;  // every how many operations the run is cut off
    };
    const Row rows[] = {{"one posting more", Deed::kGenerate, 3},
                        {"a removal", Deed::kRemove, 3},
                        {"a rebuild", Deed::kRebuild, 17}};
    PostMany(20);
    Generate();
    unsigned long next = 21;
    for (const Row& row : rows) {
        bool died = true;
        for (int last = 0; died; last += row.step) {
            SCOPED_TRACE(std::string(row.name) + ", operation " + std::to_string(last));
            ASSERT_LT(last, 2000);
            const unsigned long id = next++;
            Post(id, {.subject = "New", .more = "In-Reply-To: <m5@example.com>\r\n"});
            if (row.deed == Deed::kRemove)
                Generate();
            {
                testing::FailingFiles files;
                files.DieAfter(last);
                try {
                    row.deed == Deed::kGenerate ? Generate()
                    : row.deed == Deed::kRemove ? CDlArchive::RemoveArchive(list, id)
                                                : CDlArchive::RebuildArchive(list);
                } catch (const CDlArchiveException&) {
                    EXPECT_TRUE(files.Died());
                }
                died = files.Died();
            }
            for (const auto& [path, inode] : Inodes())
                EXPECT_TRUE(!path.ends_with(".html") || Page(path).ends_with("</html>\n")) << path;
            Generate();
            if (row.deed == Deed::kRemove) {
                EXPECT_EQ(PostingPages("New").size(), 0U);
                EXPECT_EQ(Inodes().count("html.new"), 0U);
            } else {
                EXPECT_EQ(PostingPages("New").size(), 1U);
                CDlArchive::RemoveArchive(list, id);
            }
            if (HasFailure())
                return;
        }
    }
    CheckPages();
    const std::string now = Everything();
    EXPECT_EQ(now.find(".new"), std::string::npos);
    CDlArchive::RebuildArchive(list);
    EXPECT_EQ(Everything(), now);
}

}  // namespace
}  // namespace dl
