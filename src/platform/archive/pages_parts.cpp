// What several kinds of pages have in common.
#include <utility>

#include "platform/archive/pages_private.h"

namespace dl::archive
{
namespace
{

Entry EntryOf(const Rows& row)
{
    return {row.Int(0),  row.Text(1), row.Int(2), row.Text(3), row.Text(4),
            row.Text(5), row.Int(6),  row.Int(7), row.Int(8)};
}

}  // namespace

std::vector<Entry> ReadEntries(Rows rows)
{
    std::vector<Entry> entries;
    while (rows.Next())
        entries.push_back(EntryOf(rows));
    return entries;
}

std::optional<Entry> ReadEntry(Rows rows)
{
    if (!rows.Next())
        return std::nullopt;
    return EntryOf(rows);
}

std::string EntryHtml(const Entry& entry, const std::string& up, bool excerpt)
{
    std::string out =
        Link(up + PostingPath(entry.slug), HeaderHtml(entry.subject, 160), " class=\"title\"");
    out += "\n<span class=\"by\">" + HeaderHtml(entry.name, 60) + " · " + DayTag(entry.date);
    if (entry.attachments > 0)
        out += " · " + Count(entry.attachments, "attachment", "attachments");
    out += "</span>\n";
    if (excerpt && !entry.excerpt.empty())
        out += "<p class=\"excerpt\" dir=\"auto\">" + Escape(entry.excerpt) + "</p>\n";
    return out;
}

std::string EntryList(const std::vector<Entry>& entries, const std::string& up, bool excerpt)
{
    std::string out = "<ol class=\"list-of\">\n";
    for (const Entry& entry : entries)
        out += "<li>" + EntryHtml(entry, up, excerpt) + "</li>\n";
    return out + "</ol>\n";
}

std::string Count(std::int64_t number, const char* one, const char* many)
{
    std::string digits = std::to_string(number);
    for (std::size_t at = digits.size(); at > 3;) {
        at -= 3;
        digits.insert(at, ",");
    }
    return digits + " " + (number == 1 ? one : many);
}

std::string Pager(const Site& site, const PageId& page, const Leaf& leaf, const std::string& up,
                  const char* before, const char* after)
{
    const auto link = [&](std::int64_t number, const std::string& label,
                          const std::string& attributes) {
        return "<li>" +
               Link(up + PagePath(site.index, {page.kind, page.value, number}), label, attributes) +
               "</li>\n";
    };
    std::string items;
    if (leaf.before)
        items += link(leaf.before, before, " rel=\"prev\"");
    if (leaf.after)
        items += link(leaf.after, after, " rel=\"next\"");
    if (items.empty())
        return "";
    if (page.page != 1)
        items = link(1, "First page", "") + items;
    std::string out = "<nav class=\"pager\" aria-label=\"Pages\"><ul>\n" + items + "</ul></nav>\n";
    if (page.page != 1)
        return out;
    std::vector<std::int64_t> pages;
    {
        Rows rows =
            site.index.Query("SELECT page FROM leaf WHERE kind=?1 AND value=?2 ORDER BY low",
                             static_cast<std::int64_t>(page.kind), page.value);
        while (rows.Next())
            pages.push_back(rows.Int(0));
    }
    out += "<nav class=\"pager\" aria-label=\"All pages\"><ul>\n";
    for (std::size_t i = 1; i < pages.size(); ++i)
        out += link(pages[i], "Page " + std::to_string(i + 1), "");
    return out + "</ul></nav>\n";
}

std::string SearchForm(const std::string& up, bool hidden)
{
    return "<form class=\"search\" id=\"search\" role=\"search\" method=\"get\" action=\"" + up +
           "search.html\"" + (hidden ? " hidden" : "") +
           ">\n<label for=\"q\">Search the archive</label>\n"
           "<input id=\"q\" name=\"q\" type=\"search\" maxlength=\"200\" autocomplete=\"off\">\n"
           "<button type=\"submit\">Search</button>\n</form>\n";
}

}  // namespace dl::archive
