// The text of a body as markup. One pass over the lines; nothing here looks back.
#include <algorithm>

#include "platform/archive/html.h"

namespace dl::archive
{
namespace
{

// Shorter quotations stay open: an answer between the lines is read with what it answers.
constexpr std::size_t kShortQuote = 3;

bool IsUrlCharacter(char c)
{
    return c > ' ' && c < 127 && std::string_view("\"'<>\\^`{|}").find(c) == std::string_view::npos;
}

// The length of the web address that `text` begins with; 0 when it begins with none.
std::size_t UrlLength(std::string_view text)
{
    std::size_t at = text.starts_with("https://") ? 8 : text.starts_with("http://") ? 7 : 0;
    if (at == 0)
        return 0;
    const std::size_t host = at;
    while (at < text.size() && IsUrlCharacter(text[at]))
        ++at;
    // What ends a sentence or a bracket is not the address's.
    while (at > host && std::string_view(".,;:!?)]").find(text[at - 1]) != std::string_view::npos)
        --at;
    const std::string_view authority = text.substr(host, at - host);
    const std::size_t path = std::min(authority.find_first_of("/?#"), authority.size());
    // "https://bank.example@evil.example/" is shown as text: its look deceives.
    if (path == 0 || authority.substr(0, path).find('@') != std::string_view::npos)
        return 0;
    return at;
}

std::string LineHtml(std::string_view line)
{
    std::string out;
    std::size_t done = 0;
    for (std::size_t at = line.find("http"); at != std::string_view::npos;
         at = line.find("http", at)) {
        const std::size_t length = UrlLength(line.substr(at));
        if (length == 0) {
            at += 4;
            continue;
        }
        out += Escape(HideAddresses(line.substr(done, at - done)));
        const std::string url = Escape(line.substr(at, length));
        out += Link(url, url, " rel=\"nofollow noopener noreferrer\"");
        at += length;
        done = at;
    }
    return out + Escape(HideAddresses(line.substr(done)));
}

bool LooksTabular(std::string_view text)
{
    return text.find("\ndiff ") != std::string_view::npos ||
           text.find("\n@@ ") != std::string_view::npos ||
           text.find('\t') != std::string_view::npos ||
           text.find("    ") != std::string_view::npos ||
           text.find("+--") != std::string_view::npos;
}

struct Block {
    enum class Kind { kText, kQuote, kSignature } kind = Kind::kText;
    std::string html;
    std::size_t lines = 0;
};

// Blocks are written as they end, so that a body of a million lines is not held twice.
class BodyWriter
{
 public:
    explicit BodyWriter(bool mono) : mono_(mono ? " mono" : "") {}

    void Line(std::string_view line)
    {
        using Kind = Block::Kind;
        if (block_.kind != Kind::kSignature) {
            const Kind kind = line == "-- "           ? Kind::kSignature
                              : line.starts_with('>') ? Kind::kQuote
                                                      : Kind::kText;
            if (kind != block_.kind) {
                End();
                block_.kind = kind;
            }
        }
        block_.html += LineHtml(line) + "\n";
        ++block_.lines;
    }

    std::string Take()
    {
        End();
        return std::move(out_);
    }

 private:
    void End()
    {
        std::string& html = block_.html;
        while (html.ends_with("\n"))
            html.pop_back();
        html.erase(0, std::min(html.find_first_not_of('\n'), html.size()));
        if (!html.empty())
            Write(html);
        block_ = {};
    }

    void Write(const std::string& html)
    {
        const std::string open = "<div class=\"text" + mono_ + "\" dir=\"auto\">";
        switch (block_.kind) {
            case Block::Kind::kText:
                out_ += open + html + "</div>\n";
                break;
            case Block::Kind::kSignature:
                out_ += "<div class=\"text sig" + mono_ + "\" dir=\"auto\">" + html + "</div>\n";
                break;
            case Block::Kind::kQuote:
                if (block_.lines <= kShortQuote)
                    out_ += "<blockquote>" + open + html + "</div></blockquote>\n";
                else
                    out_ += "<details><summary>Quoted text, " + std::to_string(block_.lines) +
                            " lines</summary>\n<blockquote>" + open + html +
                            "</div></blockquote></details>\n";
        }
    }

    std::string mono_;
    std::string out_;
    Block block_;
};

}  // namespace

std::string BodyHtml(std::string_view text)
{
    BodyWriter writer(LooksTabular(text));
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        writer.Line(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return writer.Take();
}

}  // namespace dl::archive
