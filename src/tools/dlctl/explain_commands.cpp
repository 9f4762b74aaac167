// dlctl explain: tells what became of a message.

#include <cstdio>
#include <memory>

#include "platform/log/format.h"
#include "platform/log/log.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/inquiry.h"
#include "tools/dlctl/site_state.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

struct ExplainOptions {
    std::string asked;
    std::vector<std::string> logs;
    bool json = false;
};

std::string Progress(const EntryOverview& entry)
{
    std::string text =
        FormatText("channel %s since %s, %lld recipient(s)", entry.channel.c_str(),
                   UtcText(entry.closed).c_str(), static_cast<long long>(entry.recipients));
    if (!entry.origin.empty())
        text += ", from channel " + entry.origin;
    if (entry.delivered + entry.refused > 0)
        text +=
            FormatText(", %lld delivered, %lld refused", static_cast<long long>(entry.delivered),
                       static_cast<long long>(entry.refused));
    if (entry.taken)
        text += ", being handled";
    else if (entry.due != 0)
        text += ", next try at " + UtcText(entry.due);
    if (!entry.problem.empty())
        text += ", last answer: " + entry.problem;
    return text;
}

Json AsJson(const ExplainOptions& options, const Inquiry& inquiry)
{
    Json events = Json::array();
    for (const Inquiry::Event& event : inquiry.Events())
        events.push_back({{"time", event.time}, {"id", event.id}, {"event", event.text}});
    Json queue = Json::array();
    for (const auto& [id, entry] : inquiry.Queued())
        queue.push_back({{"id", id},
                         {"channel", entry.channel},
                         {"closed", UtcText(entry.closed)},
                         {"next_try", entry.due == 0 ? Json() : Json(UtcText(entry.due))},
                         {"recipients", entry.recipients},
                         {"delivered", entry.delivered},
                         {"refused", entry.refused},
                         {"tries", entry.tries},
                         {"taken", entry.taken},
                         {"problem", entry.problem}});
    return {{"asked", options.asked},
            {"ids", inquiry.Ids()},
            {"events", events},
            {"queue", queue},
            {"queue_problem", inquiry.QueueTrouble()},
            {"searched", inquiry.Searched()},
            {"not_searched", inquiry.Skipped()}};
}

void Print(const Inquiry& inquiry)
{
    const auto line = [](const std::string& time, const std::string& id, const std::string& text) {
        std::printf("%-23s  %s  %s\n", time.c_str(), id.c_str(),
                    EscapeForLog(text.c_str()).c_str());
    };
    for (const Inquiry::Event& event : inquiry.Events())
        line(event.time, event.id, event.text);
    for (const auto& [id, entry] : inquiry.Queued())
        line("now", id, "waits in the queue: " + Progress(entry));
    if (!inquiry.QueueTrouble().empty())
        std::printf("The queue was not looked at: %s\n", inquiry.QueueTrouble().c_str());
    else if (inquiry.Queued().empty())
        std::puts("It is not in the queue any more.");
    for (const std::string& name : inquiry.Skipped())
        std::printf("Not searched: %s\n", EscapeForLog(name.c_str()).c_str());
}

int Explain(const ExplainOptions& options)
{
    Inquiry inquiry(options.asked, options.logs.empty() ? ConfiguredLogs() : options.logs);
    inquiry.Run();
    if (options.json)
        PrintJson(AsJson(options, inquiry));
    const bool found = !inquiry.Events().empty() || !inquiry.Queued().empty();
    if (!found && !inquiry.QueueTrouble().empty())
        return Complain(kExitFailed, "%s is not in the logs, and the queue cannot be looked at: %s",
                        options.asked.c_str(), inquiry.QueueTrouble().c_str());
    if (!found)
        return Complain(kExitNotFound,
                        "nothing is known of %s: it is not in the queue and not in the logs%s",
                        options.asked.c_str(), options.logs.empty() ? " (--log names others)" : "");
    if (!options.json)
        Print(inquiry);
    return kExitOk;
}

}  // namespace

void AddExplainCommands(CLI::App* program, int* status)
{
    auto options = std::make_shared<ExplainOptions>();
    CLI::App* explain = program->add_subcommand(
        "explain", "Tell what became of a message, from the queue and the logs");
    explain
        ->add_option("message", options->asked,
                     "Its Message-ID, or its queue identifier (eight hexadecimal digits)")
        ->required();
    explain->add_option("--log", options->logs,
                        "Search these logs, and their rotated ones, instead of the configured");
    explain->add_flag("--json", options->json, "As JSON");
    explain->callback([=] { *status = Explain(*options); });
}

}  // namespace dl
