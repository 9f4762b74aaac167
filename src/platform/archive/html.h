// Text from mail as markup, and the frame that every page has. Pure functions.
//
// Whatever comes from a message passes through Escape on its way into a page: markup characters
// become references, control characters and the characters that turn the direction of the text
// around them are dropped, broken UTF-8 becomes U+FFFD. The result is right in HTML text, in quoted
// attributes and in XML.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace dl::archive
{

// The next character of `text`, U+FFFD for a broken sequence; moves `at` behind it.
[[nodiscard]] char32_t NextCharacter(std::string_view text, std::size_t* at);

[[nodiscard]] std::string Escape(std::string_view text);
// At most `characters` of `text` in one line, with "…" when some were left out.
[[nodiscard]] std::string Shorten(std::string_view text, std::size_t characters);
// Each mail address in `text` with its local part shortened ("ann…@example.com"), so that nobody
// can collect it from a page.
[[nodiscard]] std::string HideAddresses(std::string_view text);
// One header text as markup: addresses hidden, shortened, escaped, its direction kept to itself.
[[nodiscard]] std::string HeaderHtml(std::string_view text, std::size_t characters = 300);
// The text of a body as markup: quotations folded, the signature set apart, web addresses as links.
[[nodiscard]] std::string BodyHtml(std::string_view text);
// A string literal for a script: only printable ASCII, no '<'.
[[nodiscard]] std::string ScriptString(std::string_view text);

// "21 Nov 2026", "21 Nov 2026, 06:05 UTC", "2026-11-21T06:05:09Z"; seconds since 1970 UTC.
[[nodiscard]] std::string DayText(std::int64_t time);
[[nodiscard]] std::string MomentText(std::int64_t time, int zone_minutes);
[[nodiscard]] std::string IsoText(std::int64_t time);
// 202611 for a moment in November 2026; "November 2026" and "2026-11" for 202611.
[[nodiscard]] std::int64_t MonthOf(std::int64_t time);
[[nodiscard]] std::string MonthText(std::int64_t month);
[[nodiscard]] std::string MonthName(std::int64_t month);
// <time> showing the day.
[[nodiscard]] std::string DayTag(std::int64_t time);

enum class Section { kNone, kNewest, kThreads, kAuthors, kSearch };

struct Frame {
    std::string list;   // the list's title
    std::string title;  // of the page; empty on the front page
    std::string up;     // from the page to the archive's top: "", "../", "../../"
    Section section = Section::kNone;
    bool script = false;    // the page runs search.js
    std::string head = "";  // further lines of <head>
    std::string body = "";  // attributes of <body>, beginning with a blank
};
[[nodiscard]] std::string PageHtml(const Frame& frame, std::string_view main);

// <a href="target">label</a>; both are markup already.
[[nodiscard]] std::string Link(const std::string& target, const std::string& label,
                               const std::string& attributes = "");

}  // namespace dl::archive
