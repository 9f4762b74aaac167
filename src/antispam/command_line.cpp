#include "antispam/command_line.h"

#include <algorithm>

namespace dl
{
namespace
{

bool HoldsControl(const std::string& value)
{
    return std::any_of(value.begin(), value.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

std::optional<std::string> Fill(const std::string& word, const Placeholders& values)
{
    std::string filled;
    for (std::size_t i = 0; i < word.size(); ++i) {
        const auto value =
            word[i] == '%' && i + 1 < word.size() ? values.find(word[i + 1]) : values.end();
        if (value == values.end()) {
            filled += word[i];
            continue;
        }
        const std::string& text = value->second;
        if (HoldsControl(text) || (filled.empty() && !text.empty() && text[0] == '-'))
            return std::nullopt;
        filled += text;
        ++i;
    }
    return filled;
}

}  // namespace

Placeholders ClassificationPlaceholders(const std::string& sender, const std::string& recipient,
                                        const std::string& database, const std::string& message,
                                        const std::string& output)
{
    // 'm' is not in it: only the capital letter stands for the message.
    return {{'F', sender},   {'f', sender}, {'R', recipient}, {'r', recipient}, {'B', database},
            {'b', database}, {'O', output}, {'o', output},    {'M', message}};
}

Placeholders LearningPlaceholders(const std::string& database, const std::string& message)
{
    return {{'B', database}, {'b', database}, {'M', message}};
}

std::optional<CommandLine> BuildCommandLine(const std::string& setting, const Placeholders& values)
{
    CommandLine command;
    command.feeds_message = !setting.empty() && setting[0] == '|';
    command.text = command.feeds_message ? "|" : "";
    for (std::size_t from = command.feeds_message ? 1 : 0; from < setting.size();) {
        const std::size_t blank = std::min(setting.find(' ', from), setting.size());
        const auto word = Fill(setting.substr(from, blank - from), values);
        if (!word)
            return std::nullopt;
        command.text += *word;
        if (blank > from)
            command.words.push_back(*word);
        if (blank < setting.size())
            command.text += ' ';
        from = blank + 1;
    }
    if (command.words.empty())
        return std::nullopt;
    return command;
}

}  // namespace dl
