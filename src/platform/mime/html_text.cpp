#include "platform/mime/html_text.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "platform/address/address.h"

namespace dl
{
namespace
{

constexpr int kMaxQuoteDepth = 9;
constexpr std::size_t kMaxLink = 500;
constexpr std::size_t kMaxOpenLinks = 16;

constexpr std::string_view kBlocks[] = {
    "address", "article",  "aside",  "blockquote", "center", "dd", "div",  "dl",
    "dt",      "fieldset", "figure", "footer",     "form",   "h1", "h2",   "h3",
    "h4",      "h5",       "h6",     "header",     "hr",     "li", "main", "nav",
    "ol",      "p",        "pre",    "section",    "table",  "tr", "ul"};
constexpr std::string_view kParagraphs[] = {"p",  "h1",    "h2", "h3", "h4",         "h5",
                                            "h6", "table", "ul", "ol", "blockquote", "pre"};
// Their content is no text.
constexpr std::string_view kSkipped[] = {"script",   "style",  "title",  "template", "noscript",
                                         "textarea", "select", "object", "iframe",   "svg"};

template <std::size_t kSize>
bool In(const std::string_view (&names)[kSize], std::string_view name)
{
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

bool IsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f';
}

// Builds the lines: collapses blanks, keeps the quotation depth, never two empty lines in a row.
class Lines
{
 public:
    void Text(std::string_view text, bool preformatted)
    {
        for (const char c : text) {
            if (preformatted && c == '\n') {
                Break();
            } else if (c == '\r' || c == '\0') {
                continue;
            } else if (IsBlank(c) && !preformatted) {
                blank_ = true;
            } else {
                Put(c);
            }
        }
    }
    void Break()
    {
        Flush();
        blank_ = false;
        fresh_ = true;
    }
    void Line() { fresh_ ? void() : Break(); }
    void Paragraph()
    {
        Line();
        gap_ = true;
    }
    void Quote(int by)
    {
        Paragraph();
        depth_ = std::clamp(depth_ + by, 0, kMaxQuoteDepth);
    }
    std::string Take()
    {
        Line();
        return std::move(out_);
    }

 private:
    void Put(char c)
    {
        if (blank_ && !fresh_)
            line_ += ' ';
        blank_ = false;
        fresh_ = false;
        line_ += c;
    }
    void Flush()
    {
        const bool empty = line_.find_first_not_of(" \t") == std::string::npos;
        if (empty) {
            gap_ = true;
        } else {
            if (gap_ && !out_.empty())
                out_ += std::string(static_cast<std::size_t>(std::min(depth_, last_depth_)), '>') +
                        "\n";
            gap_ = false;
            if (depth_ > 0)
                out_ += std::string(static_cast<std::size_t>(depth_), '>') + " ";
            out_ += line_ + "\n";
            last_depth_ = depth_;
        }
        line_.clear();
    }

    std::string out_;
    std::string line_;
    bool blank_ = false;
    bool fresh_ = true;
    bool gap_ = false;
    int depth_ = 0;
    int last_depth_ = 0;
};

std::string DecodeEntities(std::string_view text)
{
    std::string out;
    while (!text.empty()) {
        const std::size_t amp = text.find('&');
        out.append(text.substr(0, amp));
        if (amp == std::string_view::npos)
            break;
        text.remove_prefix(amp);
        const std::size_t end = text.substr(0, 12).find(';');
        const std::string character =
            end == std::string_view::npos ? "" : EntityText(text.substr(1, end - 1));
        if (character.empty()) {
            out += '&';
            text.remove_prefix(1);
        } else {
            out += character == "\u00A0" ? " " : character;
            text.remove_prefix(end + 1);
        }
    }
    return out;
}

// The value of an attribute in the inside of a tag; empty when there is none.
std::string Attribute(std::string_view tag, std::string_view name)
{
    std::size_t at = 0;
    while (at < tag.size()) {
        while (at < tag.size() && (IsBlank(tag[at]) || tag[at] == '/'))
            ++at;
        const std::size_t begin = at;
        while (at < tag.size() && !IsBlank(tag[at]) && tag[at] != '=')
            ++at;
        const std::string_view found = tag.substr(begin, at - begin);
        while (at < tag.size() && IsBlank(tag[at]))
            ++at;
        std::string_view value;
        if (at < tag.size() && tag[at] == '=') {
            ++at;
            while (at < tag.size() && IsBlank(tag[at]))
                ++at;
            const char quote = at < tag.size() && (tag[at] == '"' || tag[at] == '\'') ? tag[at] : 0;
            at += quote ? 1 : 0;
            const std::size_t from = at;
            while (at < tag.size() && (quote ? tag[at] != quote : !IsBlank(tag[at])))
                ++at;
            value = tag.substr(from, at - from);
            at += at < tag.size() && quote ? 1 : 0;
        }
        if (EqualNoCase(found, name))
            return DecodeEntities(value);
    }
    return "";
}

class Converter
{
 public:
    explicit Converter(std::string_view html) : html_(html) {}

    std::string Run()
    {
        while (at_ < html_.size()) {
            const std::size_t open = std::min(html_.find('<', at_), html_.size());
            Text(html_.substr(at_, open - at_));
            at_ = open;
            if (at_ < html_.size())
                Markup();
        }
        return lines_.Take();
    }

 private:
    void Text(std::string_view raw)
    {
        if (!raw.empty())
            lines_.Text(DecodeEntities(raw), preformatted_ > 0);
    }

    // At a '<'.
    void Markup()
    {
        if (html_.substr(at_).starts_with("<!--")) {
            const std::size_t end = html_.find("-->", at_ + 4);
            at_ = end == std::string_view::npos ? html_.size() : end + 3;
            return;
        }
        const char next = at_ + 1 < html_.size() ? html_[at_ + 1] : ' ';
        const bool letter = (next >= 'a' && next <= 'z') || (next >= 'A' && next <= 'Z');
        const std::size_t end = letter || next == '/' || next == '!' || next == '?'
                                    ? EndOfTag(at_ + 1)
                                    : std::string_view::npos;
        if (end == std::string_view::npos) {
            lines_.Text("<", false);
            ++at_;
            return;
        }
        const std::string_view inside = html_.substr(at_ + 1, end - at_ - 1);
        at_ = end + 1;
        Tag(inside);
    }

    // Where the '>' of a tag is: behind quoted values, but never farther than a tag is long.
    [[nodiscard]] std::size_t EndOfTag(std::size_t from) const
    {
        constexpr std::size_t kMaxTag = 4096;
        if (no_end_)
            return std::string_view::npos;
        char quote = 0;
        const std::size_t limit = std::min(html_.size(), from + kMaxTag);
        for (std::size_t at = from; at < limit; ++at) {
            const char c = html_[at];
            if (quote)
                quote = c == quote ? '\0' : quote;
            else if ((c == '"' || c == '\'') && html_[at - 1] == '=')
                quote = c;
            else if (c == '>')
                return at;
        }
        const std::size_t plain = html_.find('>', from);
        no_end_ = plain == std::string_view::npos;
        return plain;
    }

    void Tag(std::string_view inside)
    {
        const bool closing = inside.starts_with('/');
        if (closing)
            inside.remove_prefix(1);
        const std::size_t length = std::min(inside.find_first_of(" \t\r\n\f/>"), inside.size());
        const std::string name = LowerCase(inside.substr(0, std::min<std::size_t>(length, 12)));
        const std::string_view attributes = inside.substr(length);
        if (!closing && In(kSkipped, name)) {
            if (!attributes.ends_with('/'))
                SkipTo(name);
            return;
        }
        if (name == "br")
            lines_.Break();
        else if (name == "a")
            Link(closing, attributes);
        else if (name == "img" && !closing)
            lines_.Text(Attribute(attributes, "alt"), false);
        else if ((name == "td" || name == "th") && closing)
            lines_.Text("  ", false);
        else if (In(kBlocks, name))
            Block(name, closing);
    }

    void Block(const std::string& name, bool closing)
    {
        if (name == "blockquote")
            lines_.Quote(closing ? -1 : 1);
        else if (In(kParagraphs, name))
            lines_.Paragraph();
        else
            lines_.Line();
        if (name == "pre")
            preformatted_ = std::max(0, preformatted_ + (closing ? -1 : 1));
        else if (name == "li" && !closing)
            lines_.Text("* ", true);
        else if (name == "hr")
            lines_.Text("----", false);
    }

    void Link(bool closing, std::string_view attributes)
    {
        if (!closing) {
            if (links_.size() < kMaxOpenLinks)
                links_.push_back({Attribute(attributes, "href"), at_});
            return;
        }
        if (links_.empty())
            return;
        const auto [target, begin] = links_.back();
        links_.pop_back();
        const bool web =
            StartsWithNoCase(target, "http://") || StartsWithNoCase(target, "https://");
        if (!web || target.size() > kMaxLink)
            return;
        const std::string_view shown = html_.substr(begin, std::min(at_ - begin, 2 * kMaxLink));
        if (shown.find(target) == std::string_view::npos)
            lines_.Text(" <" + target + ">", false);
    }

    // Behind the end tag of `name`; to the end when there is none.
    void SkipTo(const std::string& name)
    {
        while (at_ < html_.size()) {
            const std::size_t end = html_.find("</", at_);
            if (end == std::string_view::npos)
                break;
            at_ = end + 2;
            if (StartsWithNoCase(html_.substr(at_, name.size()), name)) {
                const std::size_t close = html_.find('>', at_);
                at_ = close == std::string_view::npos ? html_.size() : close + 1;
                return;
            }
        }
        at_ = html_.size();
    }

    std::string_view html_;
    std::size_t at_ = 0;
    mutable bool no_end_ = false;  // no '>' is left
    int preformatted_ = 0;
    struct OpenLink {
        std::string target;
        std::size_t begin;
    };
    std::vector<OpenLink> links_;
    Lines lines_;
};

}  // namespace

std::string HtmlToText(std::string_view html)
{
    return Converter(html).Run();
}

}  // namespace dl
