#include "platform/archive/facts.h"

#include <algorithm>
#include <ctime>
#include <unordered_set>

#include "platform/address/address.h"
#include "platform/archive/html.h"

namespace dl::archive
{
namespace
{

constexpr std::int64_t kOldest = 315'532'800;                    // 1980
constexpr std::int64_t kAhead = std::int64_t{2} * 24 * 60 * 60;  // of a clock that is wrong
constexpr std::size_t kHashLength = 20;
constexpr std::size_t kExcerpt = 220;      // characters
constexpr std::size_t kOwnBytes = 65'536;  // that are looked at
constexpr std::size_t kWordBytes = 800;
constexpr std::size_t kWordLength = 40;

constexpr std::string_view kReplyMarks[] = {"re",  "aw",  "sv",   "vs",   "antw", "odp",
                                            "ref", "rif", "回复", "答复", "返信"};
constexpr std::string_view kForwardMarks[] = {"fw", "fwd", "wg", "tr", "rv", "vb", "转发"};

std::string_view SkipBlanks(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
    return text;
}

// Takes "Re:", "Re[2]:" or "Re^2:" off the beginning.
template <std::size_t kSize>
bool TakeMark(const std::string_view (&marks)[kSize], std::string_view* text)
{
    for (const std::string_view mark : marks) {
        if (!StartsWithNoCase(*text, mark))
            continue;
        std::string_view rest = text->substr(mark.size());
        if (rest.starts_with('[') || rest.starts_with('^') || rest.starts_with('(')) {
            std::size_t at = 1;
            while (at < rest.size() && at < 5 && rest[at] >= '0' && rest[at] <= '9')
                ++at;
            rest.remove_prefix(at);
            if (rest.starts_with(']') || rest.starts_with(')'))
                rest.remove_prefix(1);
        }
        rest = SkipBlanks(rest);
        if (rest.starts_with("："))
            rest.remove_prefix(std::string_view("：").size());
        else if (rest.starts_with(':'))
            rest.remove_prefix(1);
        else
            continue;
        *text = SkipBlanks(rest);
        return true;
    }
    return false;
}

bool TakeTag(std::string_view* text)
{
    const std::size_t end = text->substr(0, 80).find(']');
    if (!text->starts_with('[') || end == std::string_view::npos)
        return false;
    const std::string_view rest = SkipBlanks(text->substr(end + 1));
    if (rest.empty())
        return false;  // the tag is all there is
    *text = rest;
    return true;
}

// The lines that the author wrote: no quotation, no line that introduces one, no signature.
std::string OwnText(const Posting& posting)
{
    std::string own;
    for (const PostingText& text : posting.texts) {
        std::string_view rest = text.text;
        while (!rest.empty() && own.size() < kOwnBytes) {
            const std::size_t end = std::min(rest.find('\n'), rest.size());
            const std::string_view line = rest.substr(0, end);
            rest.remove_prefix(std::min(end + 1, rest.size()));
            if (line == "-- ")
                break;
            const std::size_t next = rest.find_first_not_of('\n');
            const bool introduces =
                line.ends_with(':') && next != std::string_view::npos && rest[next] == '>';
            if (!line.starts_with('>') && !introduces)
                own.append(line).append("\n");
        }
    }
    return own;
}

// The beginning of `text`, cut between words where there are any.
std::string Excerpt(const std::string& text)
{
    std::string excerpt = Shorten(text, kExcerpt);
    constexpr std::string_view kCut = "…";
    const std::size_t blank = excerpt.rfind(' ');
    if (excerpt.ends_with(kCut) && blank != std::string::npos && blank > excerpt.size() / 2)
        excerpt = excerpt.substr(0, blank) + " " + std::string(kCut);
    return excerpt;
}

bool IsWordByte(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
           static_cast<unsigned char>(c) >= 0x80;
}

// The distinct words of `text` in their order, as many as the search keeps of one posting.
std::string Words(const std::string& text)
{
    const std::string folded = LowerCase(text);
    std::string out;
    std::unordered_set<std::string> seen;
    for (std::size_t at = 0; at < folded.size() && out.size() < kWordBytes;) {
        if (!IsWordByte(folded[at])) {
            ++at;
            continue;
        }
        const std::size_t begin = at;
        while (at < folded.size() && IsWordByte(folded[at]))
            ++at;
        std::string word = folded.substr(begin, std::min(at - begin, kWordLength));
        while (at - begin > kWordLength && !word.empty() &&
               (static_cast<unsigned char>(folded[begin + word.size()]) & 0xC0) == 0x80)
            word.pop_back();  // never half a character
        if (word.size() < 3 || !seen.insert(word).second)
            continue;
        out += (out.empty() ? "" : " ") + word;
    }
    return out;
}

}  // namespace

std::string BaseSubject(const std::string& subject, bool* reply)
{
    std::string_view text = SkipBlanks(subject);
    *reply = false;
    for (;;) {
        if (TakeMark(kReplyMarks, &text))
            *reply = true;
        else if (!TakeMark(kForwardMarks, &text) && !TakeTag(&text))
            break;
    }
    return LowerCase(Shorten(text, 200));
}

std::string AuthorName(const PostingMailbox& from)
{
    for (const std::string& text : {from.name, from.address}) {
        std::string name = Shorten(HideAddresses(text), 80);
        if (!name.empty())
            return name;
    }
    return "Unknown sender";
}

Facts FactsOf(const Posting& posting, std::int64_t id, std::int64_t arrival, std::int64_t now)
{
    Facts facts;
    facts.id = id;
    facts.hash = posting.identity.substr(0, kHashLength);
    facts.message_id = posting.message_id;
    facts.references = posting.references;
    const auto true_date = [now](std::int64_t date) {
        return date >= kOldest && date <= now + kAhead;
    };
    facts.date = posting.date && true_date(*posting.date) ? *posting.date
                 : true_date(arrival)                     ? arrival
                                                          : std::max(now, kOldest);
    facts.subject = Shorten(HideAddresses(posting.subject), 300);
    if (facts.subject.empty())
        facts.subject = "(no subject)";
    facts.base_subject = BaseSubject(posting.subject, &facts.reply);
    facts.name = AuthorName(posting.from);
    facts.author_key = posting.from.address.empty() ? "name:" + LowerCase(facts.name)
                                                    : LowerCase(posting.from.address);
    facts.attachments = static_cast<std::int64_t>(posting.attachments.size());
    const std::string own = HideAddresses(OwnText(posting));
    facts.excerpt = Excerpt(own);
    facts.words = Words(own);
    return facts;
}

}  // namespace dl::archive
