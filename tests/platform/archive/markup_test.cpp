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
        {"C1 controls", "a\u0085b\u009fc", "abc"},
        {"direction overrides", "a\u202Egnp.exe\u202C\u2066b\u2069", "agnp.exeb"},
        {"letters of any script", "Grüße 日本 😀", "Grüße 日本 😀"},
        {"broken UTF-8", "a\xFF\xC3(b", "a\uFFFD\uFFFD(b"},
        {"overlong and surrogate", "\xC0\xBC\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"},
        {"cut in the middle", "a\xE2\x82", "a\uFFFD\uFFFD"},
        {"noncharacters", "a\uFFFE\uFDD0\uFEFFb", "ab"},
    };
    for (const TextRow& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Escape(row.text), row.want);
    }
}

TEST(Markup, HideAddresses)
{
    const TextRow rows[] = {
        {"plain", "anna.bell@example.com", "ann…@example.com"},
        {"short", "ab@example.com", "a…@example.com"},
        {"one letter", "a@example.com", "…@example.com"},
        {"in brackets", "Anna <anna@example.com>,", "Anna <an…@example.com>,"},
        {"quoted local part", "\"anna bell\"@example.com", "\"an…@example.com"},
        {"no address", "10 @ 5 a@ @b", "10 @ 5 a@ @b"},
        {"in a row", "a1@b2@c3@d4", "a…@b…@c…@d4"},
        {"umlauts", "jürgen@exämple.de", "jü…@exämple.de"},
        {"a quote far away", "x \"y z\"@example", "x \"y…@example"},
    };
    for (const TextRow& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(HideAddresses(row.text), row.want);
    }
}

TEST(Markup, Body)
{
    const std::string open = "<div class=\"text\" dir=\"auto\">";
    const std::vector<TextRow> rows = {
        {"text", "a\n<b>\n", "<div class=\"text\" dir=\"auto\">a\n&lt;b&gt;</div>\n"},
        {"a short quotation", "> a\nb\n",
         "<blockquote><div class=\"text\" dir=\"auto\">&gt; a</div></blockquote>\n"
         "<div class=\"text\" dir=\"auto\">b</div>\n"},
        {"a long one is folded", ">1\n>2\n>3\n>4\n",
         "<details><summary>Quoted text, 4 lines</summary>\n<blockquote><div class=\"text\" "
         "dir=\"auto\">&gt;1\n&gt;2\n&gt;3\n&gt;4</div></blockquote></details>\n"},
        {"signature", "a\n\n-- \nme\n> no quote\n",
         "<div class=\"text\" dir=\"auto\">a</div>\n<div class=\"text sig\" dir=\"auto\">-- \nme\n"
         "&gt; no quote</div>\n"},
        {"link", "(see https://example.org/a?b=1&c=2).\n",
         "<div class=\"text\" dir=\"auto\">(see <a "
         "href=\"https://example.org/a?b=1&amp;c=2\" rel=\"nofollow noopener "
         "noreferrer\">https://example.org/a?b=1&amp;c=2</a>).</div>\n"},
        {"a deceiving link is text", "https://bank.example@evil.example/\n",
         "<div class=\"text\" dir=\"auto\">https://b…@evil.example/</div>\n"},
        {"only http is linked", "javascript:alert(1) data:text/html,x httpx://a file:///etc\n",
         "<div class=\"text\" dir=\"auto\">javascript:alert(1) data:text/html,x httpx://a "
         "file:///etc</div>\n"},
        {"a link cannot leave its attribute", "http://x/\"onclick=\"y\n",
         "<div class=\"text\" dir=\"auto\"><a href=\"http://x/\" rel=\"nofollow noopener "
         "noreferrer\">http://x/</a>&quot;onclick=&quot;y</div>\n"},
        {"a table keeps its columns", "a    b\n",
         "<div class=\"text mono\" dir=\"auto\">a    b</div>\n"},
        {"nothing", "\n\n", ""},
    };
    for (const TextRow& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(BodyHtml(row.text), row.want);
    }
}

TEST(Markup, ScriptString)
{
    EXPECT_EQ(ScriptString("a\"\\</script>\u2028é😀\n"),
              "\"a\\u0022\\u005c\\u003c/script\\u003e\\u2028\\u00e9\\ud83d\\ude00\\u000a\"");
}

TEST(Markup, Shorten)
{
    EXPECT_EQ(Shorten("  a \r\n b\t", 10), "a b");
    EXPECT_EQ(Shorten("äöüß", 3), "äöü…");
    EXPECT_EQ(Shorten("", 3), "");
}

TEST(SafeName, IsPlainAndInert)
{
    struct Row {
        const char* name;
        std::string given;
        const char* type;
        const char* want;
    };
    const Row rows[] = {
        {"plain", "report.pdf", "application/pdf", "7-report.pdf"},
        {"upper case", "Photo.JPG", "image/jpeg", "7-Photo.jpg"},
        {"folders", "../../etc/passwd", "text/plain", "7-passwd.txt"},
        {"backslashes", "C:\\x\\run.exe", "application/octet-stream", "7-run_exe.bin"},
        {"markup", "a.html", "text/html", "7-a_html.txt"},
        {"vector graphics", "a.svg", "image/svg+xml", "7-a_svg.bin"},
        {"script", "a.js", "text/javascript", "7-a_js.txt"},
        {"two extensions", "a.php.png", "image/png", "7-a_php.png"},
        {"hidden file", ".htaccess", "text/plain", "7-htaccess.txt"},
        {"NUL", std::string("a.png\0.html", 11), "image/png", "7-a_png_html.bin"},
        {"direction override", "cod\u202Egnp.exe", "image/png", "7-cod_gnp_exe.bin"},
        {"no name", "", "image/png", "7-attachment.png"},
        {"no name, unknown type", "", "application/x-foo", "7-attachment.bin"},
        {"forwarded message", "", "message/rfc822", "7-message.txt"},
        {"only dots", "....", "application/x-foo", "7-attachment.bin"},
        {"other script", "отчёт.pdf", "application/pdf", "7-attachment.pdf"},
        {"blanks and line ends", "a b\r\nc.txt", "text/plain", "7-a_b_c.txt"},
        {"type against name", "x.png", "text/html", "7-x.png"},
        {"long", std::string(4000, 'w') + ".zip", "application/zip",
         "7-wwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwww.zip"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(SafeFileName(7, row.given, row.type), row.want);
    }
}

TEST(Subject, Base)
{
    struct Row {
        const char* subject;
        const char* base;
        bool reply;
    };
    const Row rows[] = {
        {"Apples", "apples", false},
        {"Re: Apples", "apples", true},
        {"RE : re:Fwd: Apples", "apples", true},
        {"[list] Re: [list] Apples", "apples", true},
        {"Re[12]: Apples", "apples", true},
        {"Fwd: Apples", "apples", false},
        {"AW: Antw: Äpfel", "Äpfel", true},
        {"回复： 苹果", "苹果", true},
        {"Reply: Apples", "reply: apples", false},
        {"[Apples]", "[apples]", false},
        {"Re:", "", true},
        {"", "", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.subject);
        bool reply = !row.reply;
        EXPECT_EQ(BaseSubject(row.subject, &reply), row.base);
        EXPECT_EQ(reply, row.reply);
    }
}

TEST(Html, ToText)
{
    const TextRow rows[] = {
        {"blocks", "<p>a</p><p>b<br>c</p>", "a\n\nb\nc\n"},
        {"head, script and style go",
         "<html><head><title>t</title><style>x</style></head><script>if(a<b)</script>d", "d\n"},
        {"blanks", " a \n\n  b <b>c</b>d", "a b cd\n"},
        {"entities", "a&amp;&lt;b&gt;&eacute;&#8364;&#x20AC;&nbsp;&bogus;&", "a&<b>é€€ &bogus;&\n"},
        {"quotation", "<blockquote>a<br>b</blockquote>c", "> a\n> b\n\nc\n"},
        {"nested", "<blockquote>a<blockquote>b</blockquote></blockquote>c", "> a\n>\n>> b\n\nc\n"},
        {"list", "<ul><li>a<li>b</ul>", "* a\n* b\n"},
        {"link", "<a href='https://e.org/x'>see</a> <a href=\"https://e.org\">https://e.org</a>",
         "see <https://e.org/x> https://e.org\n"},
        {"no script link", "<a href='javascript:x'>see</a>", "see\n"},
        {"image", "<img src=x alt='a rose'>", "a rose\n"},
        {"pre", "<pre>a  b\n c</pre>d", "a  b\n c\n\nd\n"},
        {"comment", "a<!-- <b>x</b> -->b<!-- open", "ab\n"},
        {"a bare less-than", "1 < 2 <3 a<", "1 < 2 <3 a<\n"},
        {"open tag", "a<b", "a<b\n"},
        {"a quoted end of tag", "<img alt='>x'>y", ">xy\n"},
        {"table", "<table><tr><td>a</td><td>b</td></tr><tr><td>c</td></tr></table>", "a b\nc\n"},
        {"unclosed script", "a<script>b", "a\n"},
        {"NUL", std::string("a\0b", 3), "ab\n"},
        {"nothing", "", ""},
    };
    for (const TextRow& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(HtmlToText(row.text), row.want);
    }
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
