#include "platform/archive/html.h"

#include <algorithm>
#include <ctime>

#include "platform/log/format.h"

namespace dl::archive
{
namespace
{

constexpr char32_t kReplacement = 0xFFFD;

constexpr const char* kMonths[] = {"January",   "February", "March",    "April",
                                   "May",       "June",     "July",     "August",
                                   "September", "October",  "November", "December"};
constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

std::tm UtcOf(std::int64_t time)
{
    std::tm parts{};
    const std::time_t seconds = time;
    gmtime_r(&seconds, &parts);
    return parts;
}

// Characters that no page shows: controls, what turns the direction of text, what XML refuses.
bool IsDropped(char32_t c)
{
    if (c < 0x20)
        return c != '\t' && c != '\n';
    return (c >= 0x7F && c < 0xA0) || (c >= 0x202A && c <= 0x202E) ||
           (c >= 0x2066 && c <= 0x2069) || c == 0xFEFF || (c >= 0xFDD0 && c <= 0xFDEF) ||
           (c & 0xFFFE) == 0xFFFE;
}

bool IsLocalCharacter(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           static_cast<unsigned char>(c) >= 0x80 ||
           std::string_view("!#$%&'*+-/=?^_`{|}~.").find(c) != std::string_view::npos;
}

bool IsDomainCharacter(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           static_cast<unsigned char>(c) >= 0x80 || c == '-' || c == '.' || c == '[' || c == ']' ||
           c == ':';
}

// Up to three characters of a local part, never more than half of it.
std::string LocalStart(std::string_view local)
{
    std::string out;
    std::size_t at = 0;
    for (int i = 0; i < 3 && at < local.size(); ++i) {
        const std::size_t begin = at;
        (void)NextCharacter(local, &at);  // only its length counts
        if (at * 2 > local.size())
            break;
        out.append(local.substr(begin, at - begin));
    }
    return out;
}

// Where the quoted local part that ends before `at` begins, as in "anna b"@example.com; `at` when
// it begins nowhere near.
std::size_t OpeningQuote(std::string_view text, std::size_t from, std::size_t at)
{
    constexpr std::size_t kMaxLocal = 66;
    const std::size_t low = std::max(from, at > kMaxLocal ? at - kMaxLocal : 0);
    for (std::size_t begin = at - 1; begin > low; --begin)
        if (text[begin - 1] == '"')
            return begin - 1;
    return at;
}

}  // namespace

char32_t NextCharacter(std::string_view text, std::size_t* at)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte((*at)++);
    if (first < 0x80)
        return first;
    const std::size_t tail = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : 1;
    if (first < 0xC2 || first > 0xF4 || *at + tail > text.size())
        return kReplacement;
    char32_t c = first & (0x3FU >> tail);
    for (std::size_t i = 0; i < tail; ++i) {
        if ((byte(*at + i) & 0xC0) != 0x80)
            return kReplacement;
        c = (c << 6) | (byte(*at + i) & 0x3FU);
    }
    constexpr char32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
    if (c < kSmallest[tail] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
        return kReplacement;
    *at += tail;
    return c;
}

std::string Escape(std::string_view text)
{
    std::string out;
    out.reserve(text.size() + text.size() / 8);
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t begin = at;
        const char32_t c = NextCharacter(text, &at);
        if (IsDropped(c))
            continue;
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            case kReplacement:
                out += "\uFFFD";
                break;
            default:
                out.append(text.substr(begin, at - begin));
        }
    }
    return out;
}

std::string Shorten(std::string_view text, std::size_t characters)
{
    std::string out;
    std::size_t count = 0;
    bool blank = false;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t begin = at;
        const char32_t c = NextCharacter(text, &at);
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
            blank = !out.empty();
            continue;
        }
        if (IsDropped(c))
            continue;
        if (count >= characters)
            return out + "…";
        if (blank)
            out += ' ';
        count += blank ? 2 : 1;
        blank = false;
        out.append(c == kReplacement ? std::string_view("\uFFFD") : text.substr(begin, at - begin));
    }
    return out;
}

std::string HideAddresses(std::string_view text)
{
    std::string out;
    std::size_t done = 0;
    for (std::size_t at = text.find('@'); at != std::string_view::npos;
         at = text.find('@', at + 1)) {
        std::size_t begin = at;
        while (begin > done && IsLocalCharacter(text[begin - 1]))
            --begin;
        if (begin == at && at > done && text[at - 1] == '"')
            begin = OpeningQuote(text, done, at);
        const char next = at + 1 < text.size() ? text[at + 1] : ' ';
        if (begin == at || !IsDomainCharacter(next))
            continue;
        out.append(text.substr(done, begin - done));
        out += LocalStart(text.substr(begin, at - begin)) + "…";
        done = at;
    }
    out.append(text.substr(done));
    return out;
}

std::string HeaderHtml(std::string_view text, std::size_t characters)
{
    return "<bdi>" + Escape(Shorten(HideAddresses(text), characters)) + "</bdi>";
}

std::string ScriptString(std::string_view text)
{
    std::string out = "\"";
    for (std::size_t at = 0; at < text.size();) {
        const char32_t c = NextCharacter(text, &at);
        if (IsDropped(c))
            continue;
        const auto code = static_cast<unsigned>(c);
        if (c >= 0x10000)
            out += FormatText("\\u%04x\\u%04x", 0xD800U + ((code - 0x10000U) >> 10),
                              0xDC00U + ((code - 0x10000U) & 0x3FFU));
        else if (c < 0x20 || c > 0x7E || c == '"' || c == '\\' || c == '<' || c == '>')
            out += FormatText("\\u%04x", code);
        else
            out += static_cast<char>(c);
    }
    return out + "\"";
}

std::string DayText(std::int64_t time)
{
    const std::tm t = UtcOf(time);
    return FormatText("%d %.3s %d", t.tm_mday, kMonths[t.tm_mon], t.tm_year + 1900);
}

std::string MomentText(std::int64_t time, int zone_minutes)
{
    const int zone = std::clamp(zone_minutes, -24 * 60, 24 * 60);
    const std::tm t = UtcOf(time + zone * std::int64_t{60});
    const int size = std::abs(zone);
    return FormatText("%s, %d %s %d, %02d:%02d", kDays[t.tm_wday], t.tm_mday, kMonths[t.tm_mon],
                      t.tm_year + 1900, t.tm_hour, t.tm_min) +
           (zone == 0 ? " UTC"
                      : FormatText(" %c%02d:%02d", zone < 0 ? '-' : '+', size / 60, size % 60));
}

std::string IsoText(std::int64_t time)
{
    const std::tm t = UtcOf(time);
    return FormatText("%04d-%02d-%02dT%02d:%02d:%02dZ", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                      t.tm_hour, t.tm_min, t.tm_sec);
}

std::int64_t MonthOf(std::int64_t time)
{
    const std::tm t = UtcOf(time);
    return (t.tm_year + 1900) * std::int64_t{100} + t.tm_mon + 1;
}

std::string MonthText(std::int64_t month)
{
    return std::string(kMonths[std::clamp<std::int64_t>(month % 100, 1, 12) - 1]) + " " +
           std::to_string(month / 100);
}

std::string MonthName(std::int64_t month)
{
    return FormatText("%04d-%02d", static_cast<int>(month / 100), static_cast<int>(month % 100));
}

std::string DayTag(std::int64_t time)
{
    return "<time datetime=\"" + IsoText(time) + "\">" + DayText(time) + "</time>";
}

std::string Link(const std::string& target, const std::string& label, const std::string& attributes)
{
    return "<a href=\"" + target + "\"" + attributes + ">" + label + "</a>";
}

namespace
{

std::string Navigation(const Frame& frame)
{
    struct Item {
        Section section;
        const char* target;
        const char* label;
    };
    constexpr Item kItems[] = {{Section::kNewest, "index.html", "Newest"},
                               {Section::kThreads, "threads/index.html", "Threads"},
                               {Section::kAuthors, "authors/index.html", "Authors"},
                               {Section::kSearch, "search.html", "Search"}};
    std::string out = "<nav aria-label=\"Archive\"><ul>\n";
    for (const Item& item : kItems)
        out += "<li>" +
               Link(frame.up + item.target, item.label,
                    item.section == frame.section ? " aria-current=\"page\"" : "") +
               "</li>\n";
    return out + "</ul></nav>\n";
}

}  // namespace

std::string PageHtml(const Frame& frame, std::string_view main)
{
    const std::string list = Escape(frame.list);
    std::string out =
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
        "'self'; img-src 'self'; script-src ";
    out += frame.script ? "'self'" : "'none'";
    out +=
        "; form-action 'self'; base-uri 'none'\">\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
        "<meta name=\"color-scheme\" content=\"light dark\">\n"
        "<meta name=\"referrer\" content=\"no-referrer\">\n<title>";
    out += (frame.title.empty() ? "" : frame.title + " – ") + list + "</title>\n";
    out += "<link rel=\"stylesheet\" href=\"" + frame.up + "style.css\">\n";
    out += "<link rel=\"icon\" type=\"image/svg+xml\" href=\"" + frame.up + "icon.svg\">\n";
    out += "<link rel=\"alternate\" type=\"application/atom+xml\" title=\"" + list + "\" href=\"" +
           frame.up + "feed.xml\">\n" + frame.head;
    out += "</head>\n<body" + frame.body +
           ">\n<a class=\"skip\" href=\"#content\">Skip to the content</a>\n"
           "<header class=\"site\">\n<p class=\"list\">" +
           Link(frame.up + "index.html", "<bdi>" + list + "</bdi>") + "</p>\n" + Navigation(frame) +
           "</header>\n<main id=\"content\" tabindex=\"-1\">\n";
    out += main;
    out += "</main>\n<footer><p>Archive of the mailing list <bdi>" + list + "</bdi> · " +
           Link(frame.up + "feed.xml", "Atom feed") + "</p></footer>\n</body>\n</html>\n";
    return out;
}

}  // namespace dl::archive
