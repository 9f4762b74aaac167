#include "tools/dlsubmit/lmtp_command.h"

#include <charconv>

#include "platform/address/address.h"

namespace dl
{
namespace
{

using Verb = LmtpCommand::Verb;

constexpr struct {
    const char* name;
    Verb verb;
} kVerbs[] = {
    {"LHLO", Verb::kLhlo},       {"HELO", Verb::kHello},      {"EHLO", Verb::kHello},
    {"MAIL", Verb::kMail},       {"RCPT", Verb::kRcpt},       {"DATA", Verb::kData},
    {"RSET", Verb::kRset},       {"NOOP", Verb::kNoop},       {"VRFY", Verb::kVrfy},
    {"HELP", Verb::kHelp},       {"QUIT", Verb::kQuit},       {"EXPN", Verb::kNotOffered},
    {"BDAT", Verb::kNotOffered}, {"AUTH", Verb::kNotOffered}, {"STARTTLS", Verb::kNotOffered},
};

std::string_view Trimmed(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Where the path that begins `text` with '<' ends, its '>' not counted; npos when it does not. A
// quoted local part may hold a '>'.
std::size_t PathEnd(std::string_view text)
{
    bool quoted = false;
    for (std::size_t at = 1; at < text.size(); ++at) {
        if (quoted && text[at] == '\\')
            ++at;
        else if (text[at] == '"')
            quoted = !quoted;
        else if (text[at] == '>' && !quoted)
            return at;
    }
    return std::string_view::npos;
}

// "@a,@b:user@c" is to be taken as "user@c" (RFC 5321, appendix C).
std::string_view WithoutRoute(std::string_view path)
{
    if (path.empty() || path.front() != '@')
        return path;
    const std::size_t colon = path.find(':');
    return colon == std::string_view::npos ? path : path.substr(colon + 1);
}

bool ReadSize(std::string_view text, std::uint64_t* size)
{
    const char* end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, *size);
    return !text.empty() && read.ec == std::errc() && read.ptr == end;
}

MailParameters::State ReadParameter(std::string_view word, std::uint64_t* size)
{
    using State = MailParameters::State;
    const std::size_t equals = word.find('=');
    const bool has_value = equals != std::string_view::npos;
    const std::string_view name = word.substr(0, equals);
    const std::string_view value = has_value ? word.substr(equals + 1) : std::string_view();
    bool good = false;
    if (EqualNoCase(name, "SIZE"))
        good = ReadSize(value, size);
    else if (EqualNoCase(name, "BODY"))
        good = EqualNoCase(value, "7BIT") || EqualNoCase(value, "8BITMIME");
    else if (EqualNoCase(name, "SMTPUTF8"))
        good = !has_value;
    else
        return State::kUnknown;
    return good ? State::kGood : State::kBadValue;
}

}  // namespace

LmtpCommand ParseLmtpCommand(std::string_view line)
{
    const std::size_t blank = line.find_first_of(" \t");
    const std::string_view word = line.substr(0, blank);
    LmtpCommand command;
    if (blank != std::string_view::npos)
        command.argument = Trimmed(line.substr(blank));
    for (const auto& known : kVerbs)
        if (EqualNoCase(word, known.name))
            command.verb = known.verb;
    return command;
}

LmtpPath ParseLmtpPath(std::string_view argument, std::string_view keyword)
{
    LmtpPath path;
    if (!StartsWithNoCase(argument, keyword))
        return path;
    const std::string_view text = Trimmed(argument.substr(keyword.size()));
    const std::size_t end = text.empty() || text[0] != '<' ? std::string_view::npos : PathEnd(text);
    if (end == std::string_view::npos)
        return path;
    const std::string_view rest = text.substr(end + 1);
    path.well_formed = rest.empty() || rest[0] == ' ' || rest[0] == '\t';
    path.address = std::string(WithoutRoute(text.substr(1, end - 1)));
    path.parameters = Trimmed(rest);
    return path;
}

MailParameters ParseMailParameters(std::string_view parameters)
{
    MailParameters result;
    while (!parameters.empty() && result.state == MailParameters::State::kGood) {
        const std::size_t blank = parameters.find_first_of(" \t");
        result.state = ReadParameter(parameters.substr(0, blank), &result.size);
        parameters = blank == std::string_view::npos ? std::string_view()
                                                     : Trimmed(parameters.substr(blank));
    }
    return result;
}

}  // namespace dl
