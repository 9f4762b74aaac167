// Search filters (RFC 4515) for the LDIF back end: and, or, not, equality, presence.
//
// A simple filter may stand without its parentheses. Substrings, order and extensible matches are
// not offered: such a filter is not understood, rather than matched in another way than a server
// would. Pure.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/directory/ldif_file.h"

namespace dl
{

class Filter
{
 public:
    // None when `text` is no filter, or one of a kind that is not offered.
    static std::optional<Filter> Parse(std::string_view text);

    [[nodiscard]] bool Matches(const std::vector<LdifLine>& lines) const;
    // Values of attribute `name`, as ValueKey, of which an entry must have one to match; none when
    // it may match without any.
    [[nodiscard]] std::optional<std::vector<std::string>> Needs(std::string_view name) const;

 private:
    friend class FilterParser;
    enum class Kind { kAnd, kOr, kNot, kEqual, kPresent };
    Kind kind_ = Kind::kAnd;
    std::string name_;
    std::string key_;  // of the asserted value, ValueKey
    std::vector<Filter> parts_;
};

}  // namespace dl
