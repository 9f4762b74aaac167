// The command line of a classifier, from the operator's setting and a message's values.
//
// The setting is cut into words before the values are put in, and no shell sees it: a value from
// mail stays within the word that names it, whatever it holds.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace dl
{

struct CommandLine {
    std::string text;                // as it is logged
    bool feeds_message = false;      // it began with '|': the program reads the message
    std::vector<std::string> words;  // the first is the program's path
};

// What stands for a letter behind '%'. A letter that is not in the map, and its '%', are copied.
using Placeholders = std::map<char, std::string>;

[[nodiscard]] Placeholders ClassificationPlaceholders(const std::string& sender,
                                                      const std::string& recipient,
                                                      const std::string& database,
                                                      const std::string& message,
                                                      const std::string& output);
[[nodiscard]] Placeholders LearningPlaceholders(const std::string& database,
                                                const std::string& message);

// Words are separated by blanks. None when there is no word, when a value holds a control character
// (no argument can be trusted to carry it), or when a value that begins with '-' begins a word: the
// program would take it for an option of its own.
[[nodiscard]] std::optional<CommandLine> BuildCommandLine(const std::string& setting,
                                                          const Placeholders& values);

}  // namespace dl
