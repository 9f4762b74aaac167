#include "platform/config/config_text.h"

#include <cstddef>

namespace dl::config
{
namespace
{

constexpr std::string_view kBom = "\xEF\xBB\xBF";
constexpr std::string_view kBlanks = " \t\r";

std::string_view Trim(std::string_view text)
{
    const std::size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos)
        return text.substr(text.size());
    return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

std::string Lower(std::string_view text)
{
    std::string out(text);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return out;
}

enum class Kind { kNothing, kSection, kKey, kBrokenSection, kNul };

struct Line {
    Kind kind = Kind::kNothing;
    std::string_view name;   // of the section or key
    std::string_view value;  // of the key; empty but in place when there is none
};

Line ReadLine(std::string_view line)
{
    const std::string_view text = Trim(line);
    if (line.find('\0') != std::string_view::npos)
        return {Kind::kNul, {}, {}};
    if (text.empty() || text[0] == '#' || text[0] == ';')
        return {};
    if (text[0] == '[') {
        const std::size_t end = text.find(']');
        if (end == std::string_view::npos)
            return {Kind::kBrokenSection, {}, {}};
        return {Kind::kSection, Trim(text.substr(1, end - 1)), {}};
    }
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0)
        return {};
    return {Kind::kKey, Trim(text.substr(0, equals)), Trim(text.substr(equals + 1))};
}

// Walks over the lines of a file and knows the section that each stands in.
class Lines
{
 public:
    explicit Lines(std::string_view text) : text_(text)
    {
        if (text_.substr(0, kBom.size()) == kBom)
            next_ = kBom.size();
    }

    bool Next()
    {
        if (next_ >= text_.size())
            return false;
        const std::size_t end = text_.find('\n', next_);
        const std::size_t stop = end == std::string_view::npos ? text_.size() : end;
        line = ReadLine(text_.substr(next_, stop - next_));
        next_ = end == std::string_view::npos ? text_.size() : end + 1;
        ++number;
        if (line.kind == Kind::kSection || line.kind == Kind::kBrokenSection) {
            in_section = line.kind == Kind::kSection;
            section = Lower(line.name);
        }
        return true;
    }

    // The offset behind the line and its end.
    [[nodiscard]] std::size_t End() const { return next_; }

    Line line;
    std::size_t number = 0;
    bool in_section = false;
    std::string section;  // in lower case

 private:
    std::string_view text_;
    std::size_t next_ = 0;
};

std::string_view LineEndOf(std::string_view text)
{
    const std::size_t end = text.find('\n');
    return end != std::string_view::npos && end > 0 && text[end - 1] == '\r' ? "\r\n" : "\n";
}

// Inserts whole lines at `at`, the offset behind a line, which gets a line end when it has none.
std::string InsertLines(std::string_view text, std::size_t at, const std::string& lines)
{
    std::string out(text.substr(0, at));
    if (!out.empty() && out != kBom && out.back() != '\n')
        out += LineEndOf(text);
    out += lines;
    out += text.substr(at);
    return out;
}

bool IsName(std::string_view text)
{
    constexpr std::string_view kForbidden("\0\r\n", 3);
    return !text.empty() && text == Trim(text) &&
           text.find_first_of(kForbidden) == std::string_view::npos;
}

}  // namespace

std::string NameOf(std::string_view section, std::string_view key)
{
    std::string name = Lower(section);
    name += '\n';  // no section or key of a file holds one
    name += Lower(key);
    return name;
}

ConfigText ParseConfigText(std::string_view text)
{
    ConfigText parsed;
    const auto note = [&parsed](std::size_t line, const char* what) {
        if (parsed.problem.empty())
            parsed.problem = "line " + std::to_string(line) + ": " + what;
    };
    for (Lines lines(text); lines.Next();) {
        if (lines.line.kind == Kind::kNul)
            note(lines.number, "a NUL byte; the line is left out");
        else if (lines.line.kind == Kind::kBrokenSection)
            note(lines.number, "a section without ']'; the keys below it are left out");
        else if (lines.line.kind == Kind::kKey && lines.in_section)
            parsed.values[NameOf(lines.section, lines.line.name)] = lines.line.value;
    }
    return parsed;
}

bool CanBeWritten(std::string_view section, std::string_view key, std::string_view value)
{
    constexpr std::string_view kForbidden("\0\r\n", 3);
    return IsName(section) && section.find(']') == std::string_view::npos && IsName(key) &&
           key.find('=') == std::string_view::npos &&
           std::string_view("#;[").find(key[0]) == std::string_view::npos &&
           value.find_first_of(kForbidden) == std::string_view::npos;
}

std::string EditConfigText(std::string_view text, std::string_view section, std::string_view key,
                           std::string_view value)
{
    const std::string wanted_section = Lower(section);
    const std::string wanted_key = Lower(key);
    std::size_t value_at = std::string_view::npos;
    std::size_t value_size = 0;
    std::size_t section_end = std::string_view::npos;
    for (Lines lines(text); lines.Next();) {
        if (!lines.in_section || lines.section != wanted_section)
            continue;
        if (lines.line.kind == Kind::kSection || lines.line.kind == Kind::kKey)
            section_end = lines.End();
        if (lines.line.kind == Kind::kKey && Lower(lines.line.name) == wanted_key) {
            value_at = static_cast<std::size_t>(lines.line.value.data() - text.data());
            value_size = lines.line.value.size();
        }
    }
    if (value_at != std::string_view::npos) {
        std::string out(text);
        return out.replace(value_at, value_size, value);
    }
    const std::string end(LineEndOf(text));
    std::string line = std::string(key) + " = " + std::string(value) + end;
    if (section_end != std::string_view::npos)
        return InsertLines(text, section_end, line);
    line = "[" + std::string(section) + "]" + end + line;
    const bool after_others = !text.empty() && text != kBom;
    return InsertLines(text, text.size(), after_others ? end + line : line);
}

}  // namespace dl::config
