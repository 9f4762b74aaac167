#include "platform/directory/filter.h"

#include <algorithm>

namespace dl
{
namespace
{

constexpr int kMaxDepth = 64;  // a filter of ten thousand parentheses must not use up the stack

int HexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// Undoes "\XX"; none for an escape that is none, and for a character that must be escaped.
std::optional<std::string> Unescape(std::string_view text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); i++) {
        if (text[i] == '*' || text[i] == '(' || text[i] == ')')
            return std::nullopt;
        if (text[i] != '\\') {
            out += text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
        const int low = high >= 0 ? HexDigit(text[i + 2]) : -1;
        if (low < 0)
            return std::nullopt;
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

}  // namespace

class FilterParser
{
 public:
    explicit FilterParser(std::string_view text) : rest_(text) {}

    std::optional<Filter> Whole()
    {
        std::optional<Filter> filter = Peek() == '(' ? Parenthesised(0) : Item(rest_);
        if (filter && Peek() != '\0')
            return std::nullopt;
        return filter;
    }

 private:
    [[nodiscard]] char Peek() const { return rest_.empty() ? '\0' : rest_[0]; }

    bool Skip(char c)
    {
        if (Peek() != c)
            return false;
        rest_.remove_prefix(1);
        return true;
    }

    std::optional<Filter> Parenthesised(int depth)
    {
        if (depth > kMaxDepth || !Skip('('))
            return std::nullopt;
        std::optional<Filter> filter;
        if (Peek() == '&' || Peek() == '|' || Peek() == '!')
            filter = Composite(depth);
        else
            filter = Item(rest_.substr(0, rest_.find(')')));
        if (!filter || !Skip(')'))
            return std::nullopt;
        return filter;
    }

    std::optional<Filter> Composite(int depth)
    {
        Filter filter;
        filter.kind_ = Peek() == '&'   ? Filter::Kind::kAnd
                       : Peek() == '|' ? Filter::Kind::kOr
                                       : Filter::Kind::kNot;
        rest_.remove_prefix(1);
        while (Peek() == '(') {
            std::optional<Filter> part = Parenthesised(depth + 1);
            if (!part)
                return std::nullopt;
            filter.parts_.push_back(std::move(*part));
        }
        if (filter.kind_ == Filter::Kind::kNot && filter.parts_.size() != 1)
            return std::nullopt;
        return filter;
    }

    std::optional<Filter> Item(std::string_view item)
    {
        rest_.remove_prefix(item.size());
        const std::size_t equal = item.find('=');
        // "~=", ">=", "<=" and ":=" fail here: their first character belongs to no name.
        if (equal == std::string_view::npos || !IsAttributeName(item.substr(0, equal)))
            return std::nullopt;
        Filter filter;
        filter.name_ = item.substr(0, equal);
        if (item.substr(equal + 1) == "*") {
            filter.kind_ = Filter::Kind::kPresent;
            return filter;
        }
        const std::optional<std::string> value = Unescape(item.substr(equal + 1));
        if (!value)
            return std::nullopt;
        filter.kind_ = Filter::Kind::kEqual;
        filter.key_ = ValueKey(filter.name_, *value);
        return filter;
    }

    std::string_view rest_;
};

std::optional<Filter> Filter::Parse(std::string_view text)
{
    return FilterParser(text).Whole();
}

bool Filter::Matches(const std::vector<LdifLine>& lines) const
{
    const auto part = [&](const Filter& filter) { return filter.Matches(lines); };
    switch (kind_) {
        case Kind::kAnd:
            return std::all_of(parts_.begin(), parts_.end(), part);
        case Kind::kOr:
            return std::any_of(parts_.begin(), parts_.end(), part);
        case Kind::kNot:
            return !part(parts_[0]);
        case Kind::kPresent:
            return std::any_of(lines.begin(), lines.end(),
                               [&](const LdifLine& line) { return NameAnswers(name_, line.name); });
        case Kind::kEqual:
            return std::any_of(lines.begin(), lines.end(), [&](const LdifLine& line) {
                return NameAnswers(name_, line.name) && ValueKey(name_, line.value) == key_;
            });
    }
    return false;
}

std::optional<std::vector<std::string>> Filter::Needs(std::string_view name) const
{
    using Keys = std::vector<std::string>;
    if (kind_ == Kind::kEqual && SameName(name_, name))
        return Keys{key_};
    if (kind_ != Kind::kAnd && kind_ != Kind::kOr)
        return std::nullopt;
    Keys all;
    for (const Filter& part : parts_) {
        std::optional<Keys> keys = part.Needs(name);
        if (kind_ == Kind::kAnd && keys)
            return keys;
        if (kind_ == Kind::kOr && !keys)
            return std::nullopt;
        if (keys)
            all.insert(all.end(), keys->begin(), keys->end());
    }
    return kind_ == Kind::kOr ? std::optional(all) : std::nullopt;
}

}  // namespace dl
