// The file form of AntiSpamConfig, "antispam.cfg".

#include <array>
#include <cstdarg>
#include <utility>

#include "antispam/antispam_config.h"
#include "platform/address/address.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "platform/log/log.h"

namespace dl
{
namespace
{

using Text = AntiSpamConfig::Text;

constexpr std::size_t kLogSize = 8192;
constexpr const char* kActionWords[] = {"ignore", "discard", "file", "bounce"};
constexpr const char* kBayesWords[] = {"disable",       "discard",       "bounce",
                                       "changesubject", "X-Spam-Status", "file"};
constexpr char kKestruneKey[] = "KestruneAction";
constexpr char kBayesKey[] = "BayesianFilterAction";

// In the order in which a line's beginning is compared.
constexpr std::pair<const char*, Text> kReadOrder[] = {
    {"SystemSpamFolder", Text::kSystemSpamFolder},
    {"BounceReason", Text::kBounceReason},
    {"XBounceReason", Text::kXBounceReason},
    {"SpamSubject", Text::kSpamSubject},
    {"UserSpamFolder", Text::kUserSpamFolder},
    {"UndeterminedFolder", Text::kUndeterminedFolder},
    {"WhiteList", Text::kWhiteList},
    {"IPWhiteList", Text::kIPWhiteList},
    {"HamFolder", Text::kHamFolder},
    {"SpamFolder", Text::kSpamFolder},
};

// In the order of Text, which is the order of the written file.
constexpr const char* kWriteNames[] = {
    "BounceReason",       "XBounceReason", "SpamSubject", "SystemSpamFolder", "UserSpamFolder",
    "UndeterminedFolder", "SpamFolder",    "HamFolder",   "WhiteList",        "IPWhiteList",
};
static_assert(std::size(kWriteNames) == AntiSpamConfig::kTexts);

void Log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void Log(int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    LogFormatted(level > 6 ? 6 : level, "AntiSpam Config", kLogSize, format, args);
    va_end(args);
}

// The index of the first word that `value` begins with, or -1.
template <std::size_t N>
int WordIndex(std::string_view value, const char* const (&words)[N])
{
    for (std::size_t i = 0; i < N; ++i)
        if (StartsWithNoCase(value, words[i]))
            return static_cast<int>(i);
    return -1;
}

// The word of a stored action, which may be any number.
template <std::size_t N>
const char* Word(int action, const char* const (&words)[N])
{
    return action >= 0 && action < static_cast<int>(N) ? words[action] : words[0];
}

}  // namespace

AntiSpamConfig::AntiSpamConfig(const std::string& folder)
    : path_(FormatText("%s%c%s", folder.c_str(), '/', "antispam.cfg"))
{
    Log(5, "Loading antispam configuration file: %s", path_->c_str());
    (void)Load(*path_);  // without the file the defaults stand
    Log(5, "Done");
}

bool AntiSpamConfig::Load(const std::string& path)
{
    LineReader in(path);
    if (!in.IsOpen())
        return false;
    int host_action = kSpamIgnore;
    while (auto line = in.Next()) {
        std::string_view text = *line;
        if (!text.empty() && text.back() == '\n')
            text.remove_suffix(1);
        if (!text.empty() && text.back() == '\r')
            text.remove_suffix(1);
        ReadLine(text, &host_action);
    }
    return !in.Failed();
}

void AntiSpamConfig::ReadLine(std::string_view line, int* host_action)
{
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos || line[0] == '#' || line[0] == ';')
        return;
    const std::string_view value = line.substr(equals + 1);
    if (StartsWithNoCase(line, kKestruneKey)) {
        const int action = WordIndex(value, kActionWords);
        kestrune_action_ = action < 0 ? kestrune_action_ : action;
        return;
    }
    if (StartsWithNoCase(line, kBayesKey)) {
        const int action = WordIndex(value, kBayesWords);
        bayesian_action_ = action < 0 ? bayesian_action_ : action;
        return;
    }
    for (const auto& [name, field] : kReadOrder) {
        if (StartsWithNoCase(line, name)) {
            (void)Set(field, value);  // out of memory: the default stands
            return;
        }
    }
    if (line.find("-action") != std::string_view::npos)
        ReadHostLine(line.substr(0, equals), value, host_action);
}

// A value that is no action takes the one of the "-action" line before.
void AntiSpamConfig::ReadHostLine(std::string_view key, std::string_view value, int* host_action)
{
    const int action = WordIndex(value, kActionWords);
    std::optional<std::string> argument;
    if (action >= 0)
        *host_action = action;
    if (action == kSpamFile || action == kSpamBounce) {
        const std::size_t comma = value.find(',');
        if (comma != std::string_view::npos)
            argument = std::string(value.substr(comma + 1));
    }
    const std::string host(key.substr(0, key.find("-action")));
    (void)SetHostAction(host, *host_action, argument);  // out of memory: as if not stated
}

bool AntiSpamConfig::Save() const
{
    if (!path_)
        return false;
    FileWriter out(*path_, "wb");
    if (!out.IsOpen())
        return false;
    // A failed line makes all later ones fail, and Close says so.
    (void)out.Print("%s=%s\r\n", kKestruneKey, Word(kestrune_action_, kActionWords));
    (void)out.Print("%s=%s\r\n", kBayesKey, Word(bayesian_action_, kBayesWords));
    for (std::size_t i = 0; i < kTexts; ++i)
        if (texts_[i])
            (void)out.Print("%s=%s\r\n", kWriteNames[i], texts_[i]->c_str());
    for (const Host& host : hosts_) {
        const char* word = Word(host.action, kActionWords);
        if (host.argument && (host.action == kSpamFile || host.action == kSpamBounce))
            (void)out.Print("%s-action=%s,%s\r\n", host.name.c_str(), word, host.argument->c_str());
        else
            (void)out.Print("%s-action=%s\r\n", host.name.c_str(), word);
    }
    return out.Close();
}

}  // namespace dl
