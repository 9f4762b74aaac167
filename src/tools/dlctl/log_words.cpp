#include "tools/dlctl/log_words.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "platform/log/format.h"

namespace dl
{

bool IsQueueId(const std::string& text)
{
    return !text.empty() && text.size() <= 8 && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isxdigit(static_cast<unsigned char>(c)) != 0;
    });
}

std::string NormalId(std::string_view hex)
{
    return FormatText("%08lX", std::strtoul(std::string(hex).c_str(), nullptr, 16));
}

std::string IdBehind(std::string_view text, std::string_view before)
{
    const std::size_t at = text.find(before);
    if (at == std::string_view::npos)
        return "";
    const std::string_view rest = text.substr(at + before.size());
    std::size_t size = 0;
    while (size < rest.size() && std::isxdigit(static_cast<unsigned char>(rest[size])) != 0)
        ++size;
    return size >= 1 && size <= 8 ? NormalId(rest.substr(0, size)) : "";
}

std::string Between(std::string_view text, std::string_view begin, std::string_view end)
{
    const std::size_t from = text.find(begin);
    if (from == std::string_view::npos)
        return "";
    const std::size_t to = text.find(end, from + begin.size());
    return std::string(text.substr(from + begin.size(),
                                   to == std::string_view::npos ? to : to - from - begin.size()));
}

std::string CoreOf(const std::string& message_id)
{
    return message_id.starts_with('<') && message_id.ends_with('>')
               ? message_id.substr(1, message_id.size() - 2)
               : message_id;
}

bool IsMessageId(std::string_view value, const std::string& core)
{
    const std::size_t first = value.find_first_not_of(" \t\r\n");
    const std::size_t last = value.find_last_not_of(" \t\r\n");
    if (first == std::string_view::npos)
        return false;
    value = value.substr(first, last - first + 1);
    return value == core || value.find("<" + core + ">") != std::string_view::npos;
}

bool HasWord(std::string_view line, std::string_view id)
{
    for (std::size_t at = line.find(id); at != std::string_view::npos; at = line.find(id, at + 1)) {
        const auto letter = [&](std::size_t i) {
            return i < line.size() && std::isalnum(static_cast<unsigned char>(line[i])) != 0;
        };
        if ((at == 0 || !letter(at - 1)) && !letter(at + id.size()))
            return true;
    }
    return false;
}

bool IsNoise(std::string_view text)
{
    for (const char* begin :
         {"Done", "Running ", "Loading RBL ", "Found mailing list", "Try loading", "There are ",
          "There is no ", "Archive mode", "Message digest ", "Return-receipt", "This is ",
          "Auto subscription is", "Mail posting is", "Invalid posting will", "Processing message",
          "List owner is"})
        if (text.starts_with(begin))
            return true;
    return text.find("mailing list(s) are found") != std::string_view::npos;
}

bool EndsPass(std::string_view text)
{
    for (const char* begin : {"Processing message (", "Refreshing cache", "Time to ", "Terminating",
                              "Initialize mailing list", "Next archive index"})
        if (text.starts_with(begin))
            return true;
    return false;
}

}  // namespace dl
