// Pages by month, by author, and the list of authors.
#include "platform/archive/pages_private.h"

namespace dl::archive
{
namespace
{

std::string RangeNote(const Leaf& leaf)
{
    return Count(leaf.count, "posting", "postings") +
           (leaf.before || leaf.after ? " on this page" : "") +
           (leaf.count > 1 ? ", the oldest first" : "");
}

Frame FrameFor(const Site& site, const std::string& title, const std::string& up, Section section)
{
    Frame frame;
    frame.list = site.title;
    frame.title = title;
    frame.up = up;
    frame.section = section;
    return frame;
}

}  // namespace

std::optional<std::string> MonthPage(const Site& site, const PageId& page)
{
    Database& index = site.index;
    const Leaf leaf = FindLeaf(index, page.kind, page.value, page.page);
    if (!leaf.page)
        return std::nullopt;
    const auto entries = ReadEntries(index.Query("SELECT " DL_ENTRY_COLUMNS
                                                 " FROM posting WHERE month=?1 AND sort>=?2 AND"
                                                 " sort<?3 ORDER BY sort",
                                                 page.value, leaf.low, leaf.high));
    const std::string title = MonthText(page.value);
    std::string main = "<h1>" + title + "</h1>\n<p class=\"soft\">" + RangeNote(leaf) + ". ";
    if (FindLeaf(index, PageKind::kThreadMonth, page.value, 1).page)
        main += Link("../" + PagePath(index, {PageKind::kThreadMonth, page.value, 1}),
                     "Threads begun in this month");
    main += "</p>\n" + EntryList(entries, "../", false);
    main += Pager(site, page, leaf, "../", "Earlier in this month", "Later in this month");
    main += "<p>" + Link("../index.html#months", "All months") + "</p>\n";
    return PageHtml(FrameFor(site, title, "../", Section::kNone), main);
}

std::optional<std::string> AuthorPage(const Site& site, const PageId& page)
{
    Database& index = site.index;
    const Leaf leaf = FindLeaf(index, page.kind, page.value, page.page);
    if (!leaf.page)
        return std::nullopt;
    const std::string name =
        index.Text("SELECT name FROM author WHERE id=?1", page.value).value_or("");
    const auto entries = ReadEntries(index.Query("SELECT " DL_ENTRY_COLUMNS
                                                 " FROM posting WHERE author=?1 AND sort>=?2 AND"
                                                 " sort<?3 ORDER BY sort",
                                                 page.value, leaf.low, leaf.high));
    std::string main = "<h1>" + HeaderHtml(name, 100) + "</h1>\n<p class=\"soft\">" +
                       RangeNote(leaf) + ".</p>\n" + EntryList(entries, "../../", true);
    main += Pager(site, page, leaf, "../../", "Earlier postings", "Later postings");
    return PageHtml(FrameFor(site, Escape(Shorten(name, 80)), "../../", Section::kNone), main);
}

namespace
{

std::string AuthorList(const Site& site, const Leaf& leaf)
{
    Rows rows = site.index.Query(
        "SELECT slug, name, count FROM author WHERE sort>=?1 AND sort<?2 ORDER BY sort", leaf.low,
        leaf.high);
    std::string out = "<ul class=\"plain\">\n";
    while (rows.Next())
        out += "<li>" + Link("../" + AuthorPath(rows.Text(0)), HeaderHtml(rows.Text(1), 60)) +
               " <span class=\"soft\">" + std::to_string(rows.Int(2)) + "</span></li>\n";
    return out + "</ul>\n";
}

struct Range {
    std::int64_t page;
    std::string low;
};

// Links to all pages of authors, each with the name that it begins with.
std::string AuthorRanges(const Site& site)
{
    std::vector<Range> ranges;
    {
        Rows rows =
            site.index.Query("SELECT page, low FROM leaf WHERE kind=6 AND value=0 ORDER BY low");
        while (rows.Next())
            ranges.push_back({rows.Int(0), rows.Text(1)});
    }
    std::string out = "<ul class=\"plain\">\n";
    for (const Range& range : ranges) {
        const std::string first =
            site.index
                .Text("SELECT name FROM author WHERE sort>=?1 ORDER BY sort LIMIT 1", range.low)
                .value_or("");
        out += "<li>" +
               Link(std::to_string(range.page) + ".html", "from " + HeaderHtml(first, 40)) +
               "</li>\n";
    }
    return out + "</ul>\n";
}

}  // namespace

std::optional<std::string> AuthorsPage(const Site& site, const PageId& page)
{
    const Leaf leaf = FindLeaf(site.index, page.kind, page.value, page.page);
    if (!leaf.page)
        return std::nullopt;
    const std::string main = "<h1>Authors</h1>\n<p>" + Link("index.html", "All authors") +
                             "</p>\n" + AuthorList(site, leaf) +
                             Pager(site, page, leaf, "../", "Before these", "After these");
    return PageHtml(FrameFor(site, "Authors", "../", Section::kAuthors), main);
}

std::string AuthorsIndexPage(const Site& site)
{
    const Leaf first = FindLeaf(site.index, PageKind::kAuthors, 0, 1);
    std::string main = "<h1>Authors</h1>\n";
    if (!first.page)
        main += "<p>No postings yet.</p>\n";
    else if (!first.after)
        main += "<p class=\"soft\">" + Count(first.count, "author", "authors") +
                " with the number of their postings.</p>\n" + AuthorList(site, first);
    else
        main += AuthorRanges(site);
    return PageHtml(FrameFor(site, "Authors", "../", Section::kAuthors), main);
}

std::optional<std::string> ThreadMonthPage(const Site& site, const PageId& page)
{
    Database& index = site.index;
    const Leaf leaf = FindLeaf(index, page.kind, page.value, page.page);
    if (!leaf.page)
        return std::nullopt;
    const std::string title = "Threads begun in " + MonthText(page.value);
    std::string main = "<h1>" + title + "</h1>\n<p class=\"soft\">The oldest first. ";
    if (FindLeaf(index, PageKind::kMonth, page.value, 1).page)
        main += Link("../" + PagePath(index, {PageKind::kMonth, page.value, 1}),
                     "Postings of this month by date");
    main += "</p>\n<ol class=\"list-of\">\n";
    Rows rows = index.Query(
        "SELECT slug, subject, count, sort, last FROM thread WHERE month=?1 AND sort>=?2 AND"
        " sort<?3 ORDER BY sort",
        page.value, leaf.low, leaf.high);
    while (rows.Next())
        main += "<li>" +
                Link("../" + ThreadPath(rows.Text(0)), HeaderHtml(rows.Text(1), 160),
                     " class=\"title\"") +
                "\n<span class=\"by\">" + Count(rows.Int(2), "posting", "postings") +
                ", the last on " + DayTag(std::stoll(rows.Text(4).substr(0, 11))) +
                "</span></li>\n";
    main += "</ol>\n" + Pager(site, page, leaf, "../", "Earlier threads", "Later threads");
    main += "<p>" + Link("index.html", "Threads with new postings") + "</p>\n";
    return PageHtml(FrameFor(site, title, "../", Section::kThreads), main);
}

}  // namespace dl::archive
