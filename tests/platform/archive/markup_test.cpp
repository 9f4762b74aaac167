// The pure parts: text into markup, names of attachments, subjects, HTML into text.
#include "platform/archive/facts.h"
#include "platform/archive/html.h"
#include "platform/archive/safe_name.h"
#include "platform/mime/html_text.h"
#include "tests/support/fixture.h"

namespace dl::archive
{
namespace
{

TEST(Markup, Texts)
{
    for (const auto& row : testing::ReadTable("tables/mime.txt", "escaped"))
        EXPECT_EQ(Escape(row.at(1)), row.at(2)) << row.at(0);
    for (const auto& row : testing::ReadTable("tables/mime.txt", "hidden addresses"))
        EXPECT_EQ(HideAddresses(row.at(1)), row.at(2)) << row.at(0);
}

TEST(Markup, Body)
{
    for (const testing::DataBlock& row : testing::ReadBlocks("body_html.txt"))
        EXPECT_EQ(BodyHtml(row.in), row.want) << row.name;
}

TEST(Markup, ScriptString)
{
    EXPECT_EQ(ScriptString("a\"\\</script>\u2028é😀\n"),
              "\"a\\u0022\\u005c\\u003c/script\\u003e\\u2028\\u00e9\\ud83d\\ude00\\u000a\"");
}

TEST(SafeName, IsPlainAndInert)
{
    for (const auto& row : testing::ReadTable("tables/mime.txt", "names of attachments"))
        EXPECT_EQ(SafeFileName(7, row.at(1), row.at(2)), row.at(3)) << row.at(0);
}

TEST(Subject, Base)
{
    for (const auto& row : testing::ReadTable("subjects.txt")) {
        bool reply = row.at(2) == "no";
        EXPECT_EQ(BaseSubject(row.at(0), &reply), row.at(1)) << row.at(0);
        EXPECT_EQ(reply, row.at(2) == "yes") << row.at(0);
    }
}

TEST(Html, ToText)
{
    for (const testing::DataBlock& row : testing::ReadBlocks("html_text.txt"))
        EXPECT_EQ(HtmlToText(row.in), row.want) << row.name;
}

// A quadratic step would take minutes here.
TEST(Html, HugeInputsAreQuick)
{
    for (const char* piece :
         {"<", "<a ", "<!--", "<script>", "</", "&", "<a href='x", "<blockquote>",
          "<a href=\"http://x\">", "\"@", "@", "http://", ">"}) {
        SCOPED_TRACE(piece);
        std::string text;
        while (text.size() < 1'000'000)
            text += piece;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_LT(HtmlToText(text).size(), 30'000'000U);
        EXPECT_GT(BodyHtml(text).size(), 1U);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    }
}

}  // namespace
}  // namespace dl::archive
