// dlctl spam: explain.

#include <cstdio>
#include <memory>

#include "antispam/rbl_defaults.h"
#include "antispam/spam_marks.h"
#include "lists/directory_access.h"
#include "platform/address/address.h"
#include "platform/log/log.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

constexpr char kName[] = "DL";  // of the service, in the blacklist records

struct SpamOptions {
    std::string file;
    std::string list;
    std::string sender;
};

std::string Shown(const std::string& text)
{
    return EscapeForLog(text.c_str());
}

int Verdict(int number, const char* meaning)
{
    std::printf("verdict %d: %s\n", number, meaning);
    return kExitOk;
}

const char* ActionName(int action)
{
    static constexpr const char* kNames[] = {"ignore", "discard", "file", "bounce"};
    return action >= kSpamIgnore && action <= kSpamBounce ? kNames[action] : "unknown";
}

// What decides about each host, as the checker goes through them.
void ExplainHosts(const std::string& blacklists, const AntiSpamConfig& settings,
                  const RblDefaults& defaults)
{
    const std::size_t slash = blacklists.find('/');
    if (slash == std::string::npos) {
        std::printf("  no address behind a '/': the hosts are not looked at\n");
        return;
    }
    for (const std::string& host : BlacklistHosts(blacklists)) {
        const char* of_list =
            settings.HasHostAction(host) ? ActionName(settings.HostAction(host)) : "nothing";
        std::printf("  %s: the server says %s%s, the list says %s\n", Shown(host).c_str(),
                    ActionName(defaults.Action(host)),
                    defaults.IsKnown(host) ? "" : " (it is in no record)", of_list);
    }
}

int ExplainAction(const SpamDecision& decision)
{
    if (decision.white_listed_ip)
        return Verdict(8, "the sending address is in the list's IP white list: handled normally");
    switch (decision.action) {
        case kSpamIgnore:
            return Verdict(1, "spam, ignored: handled normally");
        case kSpamDiscard:
            return Verdict(2, "spam, discarded");
        case kSpamBounce:
            std::printf("reason: %s\n", Shown(decision.reason).c_str());
            return Verdict(6, "spam, bounced to its sender");
        default:
            return Verdict(4, "spam, to be filed, but a list has no mailbox: handled normally");
    }
}

// A list's spam settings from its entry, as the service reads them.
int ReadSettings(const std::string& list, AntiSpamConfig* settings)
{
    ldapClient client;
    SearchReq found;
    if (!OpenDirectory(&client))
        return kExitFailed;
    const ListFound there = FindListEntry(client, list, &found);
    if (there != ListFound::kYes)
        return there == ListFound::kNo ? kExitNotFound : kExitFailed;
    for (const SearchAttribute& attribute : found.entries.front().attributes)
        settings->ApplyAttribute(attribute.name, attribute.value);
    return kExitOk;
}

int Explain(const SpamOptions& options)
{
    if (!IsListName(options.list))
        return kExitFailed;
    AntiSpamConfig settings;
    if (const int failed = ReadSettings(options.list, &settings))
        return failed;
    if (!options.sender.empty() && settings.IsWhitelistedSender(options.sender))
        return Verdict(7, "the sender is in the list's white list: handled normally");
    const std::string marker = SubjectMarker(kName);
    const SpamMarks marks = ReadSpamMarks(options.file, marker);
    if (!marks.readable)
        return Complain(kExitFailed, "%s cannot be read", options.file.c_str());
    std::printf("marked by X-Spam-Status%s: %s\n",
                marker.empty() ? "" : (" or by \"" + Shown(marker) + "\" in the subject").c_str(),
                marks.marked ? "yes" : "no");
    std::printf("X-kvtbl: %s\n", marks.blacklists ? Shown(*marks.blacklists).c_str() : "none");
    if (!marks.Any())
        return Verdict(0, "not marked as spam: handled normally");
    RblDefaults defaults;
    defaults.ReloadWhenDue(kName);
    std::printf("the list's action for spam: %s\n", ActionName(settings.KestruneAction()));
    if (marks.blacklists)
        ExplainHosts(*marks.blacklists, settings, defaults);
    return ExplainAction(DecideOnSpam(marks, settings, defaults));
}

}  // namespace

void AddSpamCommands(CLI::App* program, int* status)
{
    CLI::App* spam = program->add_subcommand("spam", "Verdicts on marked postings");
    spam->require_subcommand(1);
    auto options = std::make_shared<SpamOptions>();
    CLI::App* explain = spam->add_subcommand(
        "explain", "Shows which verdict a message to a list would get, and why");
    explain
        ->add_option("file", options->file,
                     "The message, with the headers that the service would see")
        ->required();
    explain->add_option("list", options->list, "The list's address")->required();
    explain->add_option("--sender", options->sender, "Envelope sender, for the white list");
    explain->callback([options, status] { *status = Explain(*options); });
}

}  // namespace dl
