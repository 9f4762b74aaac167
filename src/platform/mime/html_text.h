// The text of an HTML body, for readers that show no HTML.
//
// A pure function, one pass, no memory beyond the result: mail is written to break parsers, so
// nothing here backtracks. What it gives is plain text, not markup: it still has to be escaped
// where it is shown.
#pragma once

#include <string>
#include <string_view>

namespace dl
{

// `html` is UTF-8. Scripts, styles, comments and tags are dropped, blocks become lines, quotations
// (<blockquote>) lines that begin with "> ", links keep their address behind their text.
[[nodiscard]] std::string HtmlToText(std::string_view html);

// The UTF-8 character of an entity name without '&' and ';' ("eacute", "#233", "#xE9"); empty when
// it names none.
[[nodiscard]] std::string EntityText(std::string_view name);

}  // namespace dl
