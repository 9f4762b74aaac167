// The Atom feed (RFC 4287) of the newest postings.
#include "platform/archive/pages_private.h"
#include "platform/mime/read_posting.h"

namespace dl::archive
{
namespace
{

constexpr std::int64_t kNewest = 30;

// A name that stays the same wherever the archive is served from (RFC 9562, 5.8).
std::string Urn(const std::string& what)
{
    std::string hex = Sha256Hex(what).substr(0, 32);
    hex[12] = '8';
    hex[16] = "89ab"[(hex[16] >= 'a' ? hex[16] - 'a' + 10 : hex[16] - '0') & 3];
    for (const std::size_t at : {20U, 16U, 12U, 8U})
        hex.insert(at, "-");
    return "urn:uuid:" + hex;
}

std::string EntryXml(const Site& site, const Entry& entry)
{
    const std::string date = IsoText(entry.date);
    return "<entry>\n<id>" + Urn(site.list + "\n" + entry.slug) + "</id>\n<title>" +
           Escape(entry.subject) + "</title>\n<published>" + date + "</published>\n<updated>" +
           date + "</updated>\n<author><name>" + Escape(entry.name) +
           "</name></author>\n<link rel=\"alternate\" type=\"text/html\" href=\"" +
           Escape(site.url) + PostingPath(entry.slug) + "\"/>\n<summary>" + Escape(entry.excerpt) +
           "</summary>\n</entry>\n";
}

}  // namespace

std::string FeedPage(const Site& site)
{
    const auto entries = ReadEntries(site.index.Query(
        "SELECT " DL_ENTRY_COLUMNS " FROM posting ORDER BY sort DESC LIMIT ?1", kNewest));
    const std::int64_t updated = entries.empty() ? 0 : entries.front().date;
    std::string out =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<feed xmlns=\"http://www.w3.org/2005/Atom\">\n"
        "<id>" +
        Urn(site.list) + "</id>\n<title>" + Escape(site.title) + "</title>\n";
    if (!site.description.empty())
        out += "<subtitle>" + Escape(site.description) + "</subtitle>\n";
    out += "<updated>" + IsoText(updated) + "</updated>\n<link rel=\"self\" href=\"" +
           Escape(site.url) + "feed.xml\"/>\n<link rel=\"alternate\" type=\"text/html\" href=\"" +
           Escape(site.url) + "index.html\"/>\n";
    for (const Entry& entry : entries)
        out += EntryXml(site, entry);
    return out + "</feed>\n";
}

}  // namespace dl::archive
