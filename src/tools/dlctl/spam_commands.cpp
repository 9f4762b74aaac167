// dlctl spam: explain.

#include <cstdarg>
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
    bool json = false;
};

// What is told, as text at once or as JSON at the end. All fields are there always; null is what
// did not come up.
class Answer
{
 public:
    explicit Answer(const SpamOptions& options)
        : fields({{"file", options.file},
                  {"list", options.list},
                  {"sender", options.sender.empty() ? Json() : Json(options.sender)},
                  {"marked", Json()},
                  {"blacklists", Json()},
                  {"list_action", Json()},
                  {"hosts", Json::array()},
                  {"reason", Json()},
                  {"verdict", Json()},
                  {"meaning", Json()}}),
          json_(options.json)
    {
    }
    void Line(const char* format, ...) const __attribute__((format(printf, 2, 3)))
    {
        va_list args;
        va_start(args, format);
        if (!json_)
            std::vprintf(format, args);
        va_end(args);
    }
    int Verdict(int number, const char* meaning)
    {
        Line("verdict %d: %s\n", number, meaning);
        fields["verdict"] = number;
        fields["meaning"] = meaning;
        if (json_)
            PrintJson(fields);
        return kExitOk;
    }

    Json fields;

 private:
    const bool json_;
};

std::string Shown(const std::string& text)
{
    return EscapeForLog(text.c_str());
}

const char* ActionName(int action)
{
    static constexpr const char* kNames[] = {"ignore", "discard", "file", "bounce"};
    return action >= kSpamIgnore && action <= kSpamBounce ? kNames[action] : "unknown";
}

// What decides about each host, as the checker goes through them.
void ExplainHosts(const std::string& blacklists, const AntiSpamConfig& settings,
                  const RblDefaults& defaults, Answer* answer)
{
    if (blacklists.find('/') == std::string::npos)
        return answer->Line("  no address behind a '/': the hosts are not looked at\n");
    for (const std::string& host : BlacklistHosts(blacklists)) {
        const bool listed = settings.HasHostAction(host);
        const char* of_list = listed ? ActionName(settings.HostAction(host)) : "nothing";
        const char* of_server = ActionName(defaults.Action(host));
        const bool known = defaults.IsKnown(host);
        answer->Line("  %s: the server says %s%s, the list says %s\n", Shown(host).c_str(),
                     of_server, known ? "" : " (it is in no record)", of_list);
        answer->fields["hosts"].push_back({{"host", host},
                                           {"server_action", of_server},
                                           {"in_record", known},
                                           {"list_action", listed ? Json(of_list) : Json()}});
    }
}

int ExplainAction(const SpamDecision& decision, Answer* answer)
{
    if (decision.white_listed_ip)
        return answer->Verdict(
            8, "the sending address is in the list's IP white list: handled normally");
    switch (decision.action) {
        case kSpamIgnore:
            return answer->Verdict(1, "spam, ignored: handled normally");
        case kSpamDiscard:
            return answer->Verdict(2, "spam, discarded");
        case kSpamBounce:
            answer->Line("reason: %s\n", Shown(decision.reason).c_str());
            answer->fields["reason"] = decision.reason;
            return answer->Verdict(6, "spam, bounced to its sender");
        default:
            return answer->Verdict(
                4, "spam, to be filed, but a list has no mailbox: handled normally");
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
    Answer answer(options);
    if (!options.sender.empty() && settings.IsWhitelistedSender(options.sender))
        return answer.Verdict(7, "the sender is in the list's white list: handled normally");
    const std::string marker = SubjectMarker(kName);
    const SpamMarks marks = ReadSpamMarks(options.file, marker);
    if (!marks.readable)
        return Complain(kExitFailed, "%s cannot be read", options.file.c_str());
    answer.Line("marked by X-Spam-Status%s: %s\n",
                marker.empty() ? "" : (" or by \"" + Shown(marker) + "\" in the subject").c_str(),
                marks.marked ? "yes" : "no");
    answer.Line("X-kvtbl: %s\n", marks.blacklists ? Shown(*marks.blacklists).c_str() : "none");
    answer.fields["marked"] = marks.marked;
    if (marks.blacklists)
        answer.fields["blacklists"] = *marks.blacklists;
    if (!marks.Any())
        return answer.Verdict(0, "not marked as spam: handled normally");
    RblDefaults defaults;
    defaults.ReloadWhenDue(kName);
    const char* action = ActionName(settings.KestruneAction());
    answer.Line("the list's action for spam: %s\n", action);
    answer.fields["list_action"] = action;
    if (marks.blacklists)
        ExplainHosts(*marks.blacklists, settings, defaults, &answer);
    return ExplainAction(DecideOnSpam(marks, settings, defaults), &answer);
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
    explain->add_flag("--json", options->json, "As JSON");
    explain->callback([options, status] { *status = Explain(*options); });
}

}  // namespace dl
