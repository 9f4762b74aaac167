// Postings that were made to break pages or to run something in a reader's browser. The checker
// reads every page as a browser would and knows what may stand there.
#include <chrono>
#include <sstream>

#include "tests/platform/archive/archive_fixture.h"

namespace dl
{
namespace
{

using testing::Mail;

// Each line of tests/data/poison.txt is tried as subject, author, body, HTML body, attachment name,
// type and Message-ID.
std::vector<std::string> Poison()
{
    std::vector<std::string> all;
    std::istringstream in(testing::ReadFile(testing::DataPath("poison.txt")));
    for (std::string line; std::getline(in, line);)
        all.push_back(line);
    return all;
}

std::string HtmlPosting(const std::string& html)
{
    return "MIME-Version: 1.0\r\nContent-Type: text/html; charset=utf-8\r\nSubject: html\r\n\r\n" +
           html + "\r\n";
}

std::string WithAttachment(const std::string& name, const std::string& type)
{
    std::string quoted;
    for (const char c : name)
        quoted += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    return "MIME-Version: 1.0\r\nSubject: attached\r\nContent-Type: multipart/mixed; boundary=b\r\n"
           "\r\n--b\r\n\r\ntext\r\n--b\r\nContent-Type: " +
           type + "\r\nContent-Disposition: attachment; filename=\"" + quoted +
           "\"\r\n\r\n<script>x</script>\r\n--b--\r\n";
}

class HostileArchive : public testing::ArchiveFixture
{
};

TEST_F(HostileArchive, NothingFromMailIsMarkup)
{
    unsigned long id = 1;
    for (const std::string& poison : Poison()) {
        Post(id, {.subject = poison, .body = poison + "\r\n> " + poison + "\r\n"});
        ++id;
        Post(id, {.subject = "from", .from = "\"" + poison + "\" <x@example.com>"});
        ++id;
        Post(id, {.from = poison, .id = poison, .more = "References: " + poison + "\r\n"});
        ++id;
        PostRaw(id++, HtmlPosting(poison));
        PostRaw(id++, HtmlPosting("<p title='" + poison + "'><a href='" + poison + "'>x</a>"));
        PostRaw(id++, WithAttachment(poison, "application/octet-stream"));
        PostRaw(id++, WithAttachment("x", "text/html; name=\"" + poison + "\""));
    }
    CDlArchive::DescribeArchive(list,
                                {"<script>t</script>", "<b>\"&'", "http://lists.example.org/"});
    ASSERT_GT(id, 500U);
    Generate();
    CheckPages();
    // A second look that does not rest on the checker's parser.
    for (const auto& [path, inode] : Inodes()) {
        if (!path.ends_with(".html"))
            continue;
        const std::string page = Page(path);
        std::size_t scripts = 0;
        for (std::size_t at = page.find("<script"); at != std::string::npos;
             at = page.find("<script", at + 1))
            ++scripts;
        EXPECT_EQ(scripts, path == "search.html" ? 1U : 0U) << path;
        for (const char* part : {"<img", "<svg", "<iframe", "<style", "<object",
                                 "href=\"javascript", "href=\"data", "\u202E", "victim@"})
            EXPECT_EQ(page.find(part), std::string::npos) << path << " " << part;
    }
}

struct Row {
    std::string name;
    std::string message;
};

std::string Repeat(const std::string& text, int count)
{
    std::string out;
    for (int i = 0; i < count; ++i)
        out += text;
    return out;
}

TEST_F(HostileArchive, NothingIsTooLargeOrTooDeep)
{
    const std::string word(4000, 'w');
    std::string nested;
    for (int i = 0; i < 300; ++i)
        nested += "Content-Type: multipart/alternative; boundary=b" + std::to_string(i) +
                  "\r\n\r\n--b" + std::to_string(i) + "\r\n";
    std::vector<Row> rows = {
        {"300 levels", nested + "\r\n\r\ndeep\r\n"},
        {"HTML bombs", HtmlPosting(Repeat("<blockquote><a href='http://x'>", 30'000))},
        {"a name that fills a line",
         WithAttachment(Repeat("../", 1000) + word + ".html", "text/html")},
    };
    for (const auto& row : testing::ReadTable("tables/mime.txt", "large and odd postings"))
        rows.push_back({row.at(0), row.at(1)});
    unsigned long id = 1;
    const auto start = std::chrono::steady_clock::now();
    for (const Row& row : rows)
        PostRaw(id++, row.message);
    log.ExpectError("leaves out 00000010.msg");  // only bytes
    Generate();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
    CheckPages();
    EXPECT_EQ(Inodes().count("month/0001-01.html"), 0U);
}

}  // namespace
}  // namespace dl
