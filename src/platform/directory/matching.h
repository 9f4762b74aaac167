// How names and values are compared in the LDIF back end: as a server with the schema of
// deploy/ldap would.
//
// Attribute names are compared without regard to case; values too, with blanks at the ends ignored
// and several blanks taken as one (caseIgnoreMatch, RFC 4517 4.2.11, for ASCII letters; other
// characters must be the same bytes), but for the attributes that hold a path. Pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace dl
{

// `name` as the schema spells it; a name that is not in the schema is returned as it is.
std::string_view SchemaName(std::string_view name);
bool IsSingleValued(std::string_view name);

bool SameName(std::string_view a, std::string_view b);
// Whether a question for `asked` is answered by attribute `name`: "cn" by "cn" and by "cn;lang-de".
bool NameAnswers(std::string_view asked, std::string_view name);
// A letter or digit, then letters, digits, '-', '.', ';'.
bool IsAttributeName(std::string_view name);

// The text by which two values of attribute `name` are compared.
std::string ValueKey(std::string_view name, std::string_view value);

// A name of an entry (RFC 4514), taken apart.
struct EntryName {
    std::vector<std::string> steps;  // one key per component, the entry's own first
    std::vector<std::pair<std::string, std::string>>
        own;  // attributes and values of the entry's own component

    [[nodiscard]] bool IsAtOrBelow(const EntryName& base) const;
    bool operator==(const EntryName& other) const { return steps == other.steps; }
};

// None when `text` is no name. The empty text is the root.
std::optional<EntryName> ParseEntryName(const std::string& text);

}  // namespace dl
