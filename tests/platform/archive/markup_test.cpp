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

struct TextRow {
    const char* name;
    std::string text;
    const char* want;
};

TEST(Markup, Escape)
{
    const TextRow rows[] = {
        {"markup", "<a href='x'>&\"", "&lt;a href=&#39;x&#39;&gt;&amp;&quot;"},
        {"controls go, line ends stay", std::string("a\0b\x07\x1b[1m\x7f\nc\td", 13),
         "ab[1m\nc\td"},

        {"direction overrides", "a\u202Egnp.exe\u202C\u2066b\u2069", "agnp.exeb"},

        {"broken UTF-8", "a\xFF\xC3(b", "a\uFFFD\uFFFD(b"},
        {"overlong and surrogate", "\xC0\xBC\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"},
        {"cut in the middle", "a\xE2\x82", "a\uFFFD\uFFFD"},
        {"noncharacters", "a\uFFFE\uFDD0\uFEFFb", "ab"},
    };
    for (const TextRow& row : rows)
        EXPECT_EQ(Escape(row.text), row.want) << row.name;
}

TEST(Markup, HideAddresses)
{
    const TextRow rows[] = {
        {"plain", "anna.bell@example.com", "ann…@example.com"},

        {"in brackets", "Anna <anna@example.com>,", "Anna <an…@example.com>,"},
        {"quoted local part", "\"anna bell\"@example.com", "\"an…@example.com"},
        {"no address", "10 @ 5 a@ @b", "10 @ 5 a@ @b"},
        {"in a row", "a1@b2@c3@d4", "a…@b…@c…@d4"},
        {"umlauts", "jürgen@exämple.de", "jü…@exämple.de"},
        {"a quote far away", "x \"y z\"@example", "x \"y…@example"},
    };
    for (const TextRow& row : rows)
        EXPECT_EQ(HideAddresses(row.text), row.want) << row.name;
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
    struct Row {
        const char* name;
        std::string given;
        const char *type, *want;
    };
    const Row rows[] = {
        {"plain", "report.pdf", "application/pdf", "7-report.pdf"},

        {"folders", "../../etc/passwd", "text/plain", "7-passwd.txt"},
        {"backslashes", "C:\\x\\run.exe", "application/octet-stream", "7-run_exe.bin"},
        {"markup", "a.html", "text/html", "7-a_html.txt"},

        {"script", "a.js", "text/javascript", "7-a_js.txt"},

        {"hidden file", ".htaccess", "text/plain", "7-htaccess.txt"},
        {"NUL", std::string("a.png\0.html", 11), "image/png", "7-a_png_html.bin"},
        {"direction override", "cod\u202Egnp.exe", "image/png", "7-cod_gnp_exe.bin"},

        {"no name, unknown type", "", "application/x-foo", "7-attachment.bin"},
        {"forwarded message", "", "message/rfc822", "7-message.txt"},
        {"only dots", "....", "application/x-foo", "7-attachment.bin"},
        {"other script", "отчёт.pdf", "application/pdf", "7-attachment.pdf"},

        {"type against name", "x.png", "text/html", "7-x.png"},
        {"long", std::string(4000, 'w') + ".zip", "application/zip",
         "7-wwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwww.zip"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(SafeFileName(7, row.given, row.type), row.want) << row.name;
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
    const char* pieces[] = {"<",
                            "<a ",
                            "<!--",
                            "<script>",
                            "</",
                            "&",
                            "<a href='x",
                            "<blockquote>",
                            "<a href=\"http://x\">",
                            "\"@",
                            "@",
                            "http://",
                            ">"};
    for (const char* piece : pieces) {
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
