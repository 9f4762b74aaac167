// The text of a configuration file: what it says, and how one line of it is changed.
//
// Pure functions on bytes; both read a line in the same way, so what EditConfigText wrote is what
// ParseConfigText finds. Names are looked up by NameOf, which joins section and key without regard
// to case.
#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

namespace dl::config
{

struct ConfigText {
    std::unordered_map<std::string, std::string> values;  // by NameOf
    std::string problem;  // one line about the first fault; empty when none
};

// A line with a NUL byte is left out. A section line without ']' ends the section before it, and
// the keys below it belong nowhere: they must not take effect in a section that they were not
// written for.
[[nodiscard]] ConfigText ParseConfigText(std::string_view text);

[[nodiscard]] std::string NameOf(std::string_view section, std::string_view key);

// Whether a line made of these would be read as this key in this section.
[[nodiscard]] bool CanBeWritten(std::string_view section, std::string_view key,
                                std::string_view value);

// `text` with the value set: in the line that holds now, else in a new line after the section's
// last key, else in a new section at the end. New lines end as the file's first line does. For
// names that CanBeWritten.
[[nodiscard]] std::string EditConfigText(std::string_view text, std::string_view section,
                                         std::string_view key, std::string_view value);

}  // namespace dl::config
