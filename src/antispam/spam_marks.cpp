#include "antispam/spam_marks.h"

#include <algorithm>

#include "platform/address/address.h"
#include "platform/config/config.h"
#include "platform/files/files.h"

namespace dl
{
namespace
{

constexpr std::string_view kStatus = "X-Spam-Status: YES";
constexpr std::string_view kBlacklists = "X-kvtbl: ";
constexpr std::string_view kSubject = "Subject:";
constexpr std::string_view kChangeSubject = "ChangeSubject";

std::string WithoutLineEnd(std::string_view text)
{
    if (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    if (!text.empty() && text.back() == '\r')
        text.remove_suffix(1);
    return std::string(text);
}

void Apply(int action, const std::string& folder, const std::string& reason, SpamDecision* decision)
{
    decision->action = action;
    if (action == kSpamFile)
        decision->folder = folder;
    else if (action == kSpamBounce)
        decision->reason = reason;
}

}  // namespace

SpamMarks ReadSpamMarks(const std::string& path, const std::string& marker)
{
    SpamMarks marks;
    const FileHandle in = FileOpen(path, 1, 1);
    std::string_view line;
    if (!in)
        return marks;
    while (GetLine(in.get(), &line) == 1 && line != "\r\n") {
        if (StartsWithNoCase(line, kStatus))
            marks.marked = true;
        else if (StartsWithNoCase(line, kBlacklists))
            marks.blacklists = WithoutLineEnd(line.substr(kBlacklists.size()));
        else if (!marker.empty() && StartsWithNoCase(line, kSubject) &&
                 line.substr(kSubject.size()).find(marker) != std::string_view::npos)
            marks.marked = true;
    }
    marks.readable = !in->Failed();
    return marks;
}

std::string SubjectMarker(const std::string& local_name)
{
    constexpr std::size_t kSize = 1024;
    std::string action =
        GetPrivateProfileString("SpamAssassin", "Action-" + local_name, "", kSize, kGatewayConfig);
    if (action.empty())
        action =
            GetPrivateProfileString("SpamAssassin", "Action-global", "", kSize, kGatewayConfig);
    const std::size_t comma = action.find(',');
    if (!StartsWithNoCase(action, kChangeSubject) || comma == std::string::npos)
        return "";
    return action.substr(comma + 1);
}

std::vector<std::string> BlacklistHosts(const std::string& blacklists)
{
    std::vector<std::string> hosts;
    const std::size_t slash = blacklists.find('/');
    for (std::size_t from = 0; slash != std::string::npos && from < slash;) {
        const std::size_t comma = std::min(blacklists.find(',', from), slash);
        if (comma > from)
            hosts.push_back(blacklists.substr(from, comma - from));
        from = comma + 1;
    }
    return hosts;
}

SpamDecision DecideOnSpam(const SpamMarks& marks, const AntiSpamConfig& settings,
                          const RblDefaults& defaults)
{
    using Text = AntiSpamConfig::Text;
    SpamDecision decision;
    const std::string& folder = settings.Get(Text::kSystemSpamFolder);
    const std::string& reason = settings.Get(Text::kXBounceReason);
    Apply(settings.KestruneAction(), folder, reason, &decision);
    const std::string blacklists = marks.blacklists.value_or("");
    const std::size_t slash = blacklists.find('/');
    if (slash == std::string::npos)
        return decision;
    if (settings.IsWhitelistedIP(blacklists.substr(slash + 1))) {
        decision.white_listed_ip = true;
        return decision;
    }
    for (const std::string& host : BlacklistHosts(blacklists)) {
        Apply(defaults.Action(host), folder, reason, &decision);
        decision.unknown = defaults.LoadFailed() && !settings.HasHostAction(host);
        if (settings.HasHostAction(host))
            Apply(settings.HostAction(host), settings.HostFolder(host),
                  settings.HostBounceReason(host), &decision);
    }
    return decision;
}

}  // namespace dl
