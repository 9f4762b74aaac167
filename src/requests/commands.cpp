#include "requests/commands.h"

#include <cstdlib>

#include "platform/address/address.h"
#include "platform/files/files.h"
#include "platform/mime/mime.h"
#include "requests/body_text.h"

namespace dl
{
namespace
{

constexpr std::size_t kLine = 1023;
constexpr std::string_view kArchive = "archive registration";
constexpr std::string_view kUnsubscribe = "unsubscribe";
constexpr std::string_view kSubscribe = "subscribe";
constexpr std::size_t kIdLength = 10;  // "(xxxxxxxx)"

bool StartsWith(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

// In lower case, without leading white space.
std::string Normalized(std::string_view line)
{
    const std::size_t start = line.find_first_not_of(" \t\r\n\v\f");
    return start == std::string_view::npos ? "" : LowerCase(line.substr(start));
}

}  // namespace

RequestCommand ParseCommandLine(std::string_view line)
{
    const std::string text = Normalized(line);
    if (text.empty())
        return {.known = true};
    if (StartsWith(text, kArchive))
        return {.known = true, .archive = true};
    if (StartsWith(text, kUnsubscribe))
        return {.known = true};
    if (StartsWith(text, kSubscribe))
        return {
            .known = true, .subscribe = true, .digest = text.find("digest") != std::string::npos};
    return {};
}

RequestCommand GetRequestCommand(unsigned long id)
{
    std::string name = ExtractBodyText(id);
    RequestCommand command;
    if (name.empty())
        return command;
    LineReader in(name);
    if (in.IsOpen()) {
        const auto line = in.NextPiece(kLine);
        if (!in.Failed())
            command = ParseCommandLine(line ? *line : std::string_view());
    }
    MimeFreeFile(&name);
    return command;
}

RegistrationId ReadRegistrationId(const std::string& path)
{
    LineReader in(path);
    if (!in.IsOpen())
        return {};
    for (;;) {
        const auto line = in.NextPiece(kLine);
        if (!line)
            return {};
        const bool last = line->size() < kLine && line->back() != '\n';
        const std::string text = Normalized(*line);
        if (text.empty())
            return {.found = true, .id = 0};
        if (StartsWith(text, kArchive) && text.size() > kArchive.size()) {
            const std::string rest = text.substr(kArchive.size() + 1);
            if (rest.size() >= kIdLength && rest[0] == '(' && rest[kIdLength - 1] == ')') {
                const std::string digits = rest.substr(1, kIdLength - 2);
                const std::size_t end = digits.find_first_not_of("0123456789abcdef");
                const unsigned long number =
                    std::strtoul(("0" + digits.substr(0, end)).c_str(), nullptr, 16);
                return {.found = true, .id = static_cast<std::uint32_t>(number)};
            }
        }
        if (last)
            return {.found = true, .id = 0};
    }
}

RegistrationId GetArchiveRegistrationId(unsigned long id)
{
    std::string name = ExtractBodyText(id);
    if (name.empty())
        return {};
    const RegistrationId found = ReadRegistrationId(name);
    MimeFreeFile(&name);
    return found;
}

}  // namespace dl
