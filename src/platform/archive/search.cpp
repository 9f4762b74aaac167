// The search: a page, and the postings' words in files of kShardSize postings each, which the
// page's script reads from the newest to the oldest.
#include "platform/archive/pages_private.h"

namespace dl::archive
{

std::string SearchPage(const Site& site)
{
    const std::int64_t shards = site.index.Int("SELECT MAX(number) FROM shard").value_or(0);
    const std::string main =
        "<h1>Search</h1>\n" + SearchForm("", true) +
        "<noscript><p>The search needs JavaScript. Everything else works without it: look through "
        "the " +
        Link("index.html#months", "months") + ", the " + Link("threads/index.html", "threads") +
        " or the " + Link("authors/index.html", "authors") +
        ".</p></noscript>\n"
        "<p class=\"soft\">Finds postings by words of their subject, their author and the "
        "beginning "
        "of their text.</p>\n"
        "<p id=\"status\" role=\"status\"></p>\n<ol class=\"list-of\" id=\"found\"></ol>\n"
        "<button type=\"button\" class=\"more\" id=\"more\" hidden>Show older ones</button>\n";
    Frame frame;
    frame.list = site.title;
    frame.title = "Search";
    frame.section = Section::kSearch;
    frame.script = true;
    frame.head = "<script src=\"search.js\" defer></script>\n";
    frame.body = " data-shards=\"" + std::to_string(shards) + "\"";
    return PageHtml(frame, main);
}

std::string SearchShard(const Site& site, std::int64_t number)
{
    Rows rows = site.index.Query(
        "SELECT slug, date, name, subject, excerpt, words FROM posting WHERE shard=?1 ORDER BY id",
        number);
    std::string out = "addPostings(" + std::to_string(number) + ",[";
    const char* separator = "\n";
    while (rows.Next()) {
        out += separator;
        out += "[" + ScriptString(rows.Text(0)) + "," + ScriptString(DayText(rows.Int(1)));
        for (const int column : {2, 3, 4, 5})
            out += "," + ScriptString(rows.Text(column));
        out += "]";
        separator = ",\n";
    }
    return out + "\n]);\n";
}

}  // namespace dl::archive
