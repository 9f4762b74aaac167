// The page of a thread, and the threads that are going on.
#include <algorithm>
#include <unordered_map>

#include "platform/archive/facts.h"
#include "platform/archive/pages_private.h"

namespace dl::archive
{
namespace
{

constexpr std::size_t kMaxIndent = 12;  // deeper replies stand below each other
constexpr std::int64_t kGoingOn = 60;

// The postings of one leaf as a tree. A posting whose parent is on another page stands at the top
// with a link to it.
class Tree
{
 public:
    Tree(const Site& site, const std::string& subject, const std::vector<Entry>& entries)
        : site_(site), entries_(entries)
    {
        bool reply = false;
        base_ = BaseSubject(subject, &reply);
        for (std::size_t i = 0; i < entries.size(); ++i)
            places_[entries[i].id] = i;
        replies_.resize(entries.size());
        for (std::size_t i = 0; i < entries.size(); ++i) {
            const auto parent = places_.find(entries[i].parent);
            if (parent == places_.end())
                tops_.push_back(i);
            else
                replies_[parent->second].push_back(i);
        }
    }

    std::string Html()
    {
        out_ = "<ol class=\"tree\">\n";
        for (const std::size_t top : tops_)
            Write(top, 0);
        return out_ + "</ol>\n";
    }

 private:
    // A leaf has at most kLeafSize rows, which bounds the recursion.
    void Write(std::size_t at, std::size_t depth)
    {
        const Entry& entry = entries_[at];
        out_ += "<li>" + Shown(entry);
        if (entry.parent && !places_.contains(entry.parent))
            out_ += Above(entry.parent);
        const std::vector<std::size_t>& replies = replies_[at];
        if (depth + 1 >= kMaxIndent) {
            out_ += "</li>\n";
            for (const std::size_t reply : replies)
                Write(reply, depth);
            return;
        }
        if (!replies.empty()) {
            out_ += "<ol>\n";
            for (const std::size_t reply : replies)
                Write(reply, depth + 1);
            out_ += "</ol>\n";
        }
        out_ += "</li>\n";
    }

    // The author leads: the subject is mostly that of the whole thread, and said only when it is
    // not.
    [[nodiscard]] std::string Shown(const Entry& entry) const
    {
        bool reply = false;
        const std::string base = BaseSubject(entry.subject, &reply);
        std::string out = Link("../../" + PostingPath(entry.slug), HeaderHtml(entry.name, 60),
                               " class=\"title\"") +
                          "\n<span class=\"by\">" + DayTag(entry.date);
        if (base != base_)
            out += " · " + HeaderHtml(entry.subject, 120);
        if (entry.attachments > 0)
            out += " · " + Count(entry.attachments, "attachment", "attachments");
        out += "</span>\n";
        if (!entry.excerpt.empty())
            out += "<p class=\"excerpt\" dir=\"auto\">" + Escape(entry.excerpt) + "</p>\n";
        return out;
    }

    [[nodiscard]] std::string Above(std::int64_t id) const
    {
        const auto parent = ReadEntry(
            site_.index.Query("SELECT " DL_ENTRY_COLUMNS " FROM posting WHERE id=?1", id));
        if (!parent)
            return "";
        return "<span class=\"by\">In reply to " +
               Link("../../" + PostingPath(parent->slug), HeaderHtml(parent->name, 60)) +
               " on another page</span>\n";
    }

    const Site& site_;
    std::string base_;
    const std::vector<Entry>& entries_;
    std::unordered_map<std::int64_t, std::size_t> places_;
    std::vector<std::vector<std::size_t>> replies_;
    std::vector<std::size_t> tops_;
    std::string out_;
};

}  // namespace

std::optional<std::string> ThreadPage(const Site& site, const PageId& page)
{
    Database& index = site.index;
    const Leaf leaf = FindLeaf(index, page.kind, page.value, page.page);
    if (!leaf.page)
        return std::nullopt;
    const std::string subject =
        index.Text("SELECT subject FROM thread WHERE id=?1", page.value).value_or("");
    const auto entries = ReadEntries(index.Query("SELECT " DL_ENTRY_COLUMNS
                                                 " FROM posting WHERE thread=?1 AND sort>=?2 AND"
                                                 " sort<?3 ORDER BY sort",
                                                 page.value, leaf.low, leaf.high));
    std::string main = "<h1>" + HeaderHtml(subject) + "</h1>\n<p class=\"soft\">" +
                       Count(leaf.count, "posting", "postings") +
                       (leaf.before || leaf.after ? " on this page" : "") +
                       " of this thread.</p>\n" + Tree(site, subject, entries).Html() +
                       Pager(site, page, leaf, "../../", "Earlier postings", "Later postings");
    Frame frame;
    frame.list = site.title;
    frame.title = "Thread: " + Escape(Shorten(subject, 90));
    frame.up = "../../";
    return PageHtml(frame, main);
}

std::string ThreadsFrontPage(const Site& site)
{
    Rows rows = site.index.Query(
        "SELECT slug, subject, count, last FROM thread ORDER BY last DESC LIMIT ?1", kGoingOn);
    std::string items;
    while (rows.Next())
        items += "<li>" +
                 Link("../" + ThreadPath(rows.Text(0)), HeaderHtml(rows.Text(1), 160),
                      " class=\"title\"") +
                 "\n<span class=\"by\">" + Count(rows.Int(2), "posting", "postings") +
                 ", the last on " + DayTag(std::stoll(rows.Text(3).substr(0, 11))) +
                 "</span></li>\n";
    const std::string main =
        "<h1>Threads</h1>\n" + (items.empty()
                                    ? "<p>No postings yet.</p>\n"
                                    : "<p class=\"soft\">Those with the newest postings first. " +
                                          Link("../index.html#months", "Older ones by month") +
                                          "</p>\n<ol class=\"list-of\">\n" + items + "</ol>\n");
    Frame frame;
    frame.list = site.title;
    frame.title = "Threads";
    frame.up = "../";
    frame.section = Section::kThreads;
    return PageHtml(frame, main);
}

}  // namespace dl::archive
