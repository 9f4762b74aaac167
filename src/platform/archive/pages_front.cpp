// The front page.
#include "platform/archive/pages_private.h"
#include "platform/log/format.h"

namespace dl::archive
{
namespace
{

constexpr std::int64_t kNewest = 30;

std::int64_t Total(const Site& site)
{
    return site.index.Int("SELECT SUM(count) FROM leaf WHERE kind=3").value_or(0);
}

// A row per year, a link per month.
std::string Months(const Site& site)
{
    std::vector<std::int64_t> months;
    {
        Rows rows =
            site.index.Query("SELECT DISTINCT value FROM leaf WHERE kind=3 ORDER BY value DESC");
        while (rows.Next())
            months.push_back(rows.Int(0));
    }
    std::string out = "<table class=\"years\">\n";
    std::int64_t year = 0;
    for (const std::int64_t month : months) {
        if (month / 100 != year) {
            out += year ? "</ul></td></tr>\n" : "";
            year = month / 100;
            out += "<tr><th scope=\"row\">" + std::to_string(year) + "</th><td><ul>\n";
        }
        const std::string name = MonthText(month);
        out += "<li>" +
               Link(PagePath(site.index, {PageKind::kMonth, month, 1}),
                    name.substr(0, name.find(' '))) +
               "</li>\n";
    }
    return out + "</ul></td></tr>\n</table>\n";
}

// How the list is written to, in words: nobody collects it from the page.
std::string ListAddress(const std::string& list)
{
    const std::size_t at = list.rfind('@');
    if (at == std::string::npos)
        return Escape(list);
    return Escape(list.substr(0, at)) + " at " + Escape(list.substr(at + 1));
}

}  // namespace

std::string FrontPage(const Site& site)
{
    const std::int64_t total = Total(site);
    std::string main = "<h1><bdi>" + Escape(site.title) + "</bdi></h1>\n";
    if (!site.description.empty())
        main += "<p><bdi>" + Escape(site.description) + "</bdi></p>\n";
    main += "<p class=\"soft\">Mailing list <bdi>" + ListAddress(site.list) + "</bdi> · " +
            Count(total, "posting", "postings") + " · " + Link("feed.xml", "Atom feed") + "</p>\n";
    if (total == 0) {
        main += "<p>No postings yet.</p>\n";
    } else {
        main += SearchForm("", false);
        main += "<h2>Newest postings</h2>\n" +
                EntryList(ReadEntries(site.index.Query("SELECT " DL_ENTRY_COLUMNS
                                                       " FROM posting ORDER BY sort DESC LIMIT ?1",
                                                       kNewest)),
                          "", true);
        main += "<h2 id=\"months\">All postings by month</h2>\n" + Months(site);
    }
    Frame frame;
    frame.list = site.title;
    frame.section = Section::kNewest;
    return PageHtml(frame, main);
}

}  // namespace dl::archive
