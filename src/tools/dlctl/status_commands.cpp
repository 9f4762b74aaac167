// dlctl status.

#include <cstdio>
#include <memory>

#include "platform/log/format.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/site_state.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

constexpr int kExitNotRunning = 3;  // as of "status" of an init script
constexpr std::size_t kShownDigests = 5;

Json TimeOrNull(std::int64_t seconds)
{
    return seconds == 0 ? Json() : Json(UtcText(seconds));
}

Json ProgramJson(const ProgramState& program)
{
    const bool running = program.pid != 0;
    const std::int64_t since = program.metrics[Metric::kStartedAt];
    return {{"running", running},
            {"pid", running ? Json(program.pid) : Json()},
            {"since", running ? TimeOrNull(since) : Json()},
            {"last_error",
             program.metrics.last_error_at == 0 ? Json() : Json(program.metrics.last_error)},
            {"last_error_at", TimeOrNull(program.metrics.last_error_at)}};
}

Json StatusJson(const SiteState& site)
{
    const MetricsSnapshot& counts = site.manager.metrics;
    Json channels = Json::array();
    for (const ChannelOverview& one : site.queue.channels)
        channels.push_back({{"channel", one.channel},
                            {"waiting", one.waiting},
                            {"taken", one.taken},
                            {"put_back", one.put_back},
                            {"oldest", TimeOrNull(one.oldest)}});
    Json digests = Json::array();
    for (const DigestDue& digest : site.digests)
        digests.push_back({{"list", digest.list}, {"due", UtcText(digest.due)}});
    const bool counted = site.manager.counted;
    return {{"dlmanager", ProgramJson(site.manager)},
            {"dlsend", ProgramJson(site.sender)},
            {"dlsubmit", ProgramJson(site.intake)},
            {"lists", counted ? Json(counts[Metric::kLists]) : Json()},
            {"members", counted ? Json(counts[Metric::kMembers]) : Json()},
            {"last_refresh", TimeOrNull(counts[Metric::kLastRefresh])},
            {"waits_for_directory", site.WaitsForDirectory()},
            {"refreshes_failed", counts[Metric::kRefreshesFailed]},
            {"relay_up",
             site.sender.counted ? Json(site.sender.metrics[Metric::kRelayUp] != 0) : Json()},
            {"queue_readable", site.queue.state == QueueOverview::State::kRead},
            {"queue_problem", site.queue.cause},
            {"channels", channels},
            {"next_digests", digests}};
}

void PrintLine(const char* name, const std::string& value)
{
    std::printf("%-14s %s\n", name, value.c_str());
}

// "2026-11-21T10:00:00Z (3 min ago)"
std::string Moment(const SiteState& site, std::int64_t when)
{
    if (when == 0)
        return "never";
    const std::int64_t ago = site.now - when;
    return UtcText(when) +
           (ago >= 0 ? " (" + SpanText(ago) + " ago)" : " (in " + SpanText(-ago) + ")");
}

void PrintProgram(const SiteState& site, const ProgramState& program)
{
    if (program.pid == 0)
        PrintLine(program.name.c_str(), "not running");
    else
        PrintLine(program.name.c_str(),
                  FormatText("running, process %ld, since %s", program.pid,
                             Moment(site, program.metrics[Metric::kStartedAt]).c_str()));
}

void PrintQueue(const SiteState& site)
{
    if (site.queue.state != QueueOverview::State::kRead)
        return PrintLine("queue", "cannot be read: " + site.queue.cause);
    if (site.queue.channels.empty())
        return PrintLine("queue", "empty");
    for (const ChannelOverview& one : site.queue.channels)
        PrintLine(
            ("queue " + one.channel).c_str(),
            FormatText("%lld waiting%s, the oldest since %s", static_cast<long long>(one.waiting),
                       one.put_back == 0 ? ""
                                         : FormatText(" (%lld for another try)",
                                                      static_cast<long long>(one.put_back))
                                               .c_str(),
                       Moment(site, one.oldest).c_str()));
}

int Status(bool json)
{
    const SiteState site = ReadSiteState();
    const int status = site.manager.pid != 0 ? kExitOk : kExitNotRunning;
    if (json) {
        PrintJson(StatusJson(site));
        return status;
    }
    const MetricsSnapshot& counts = site.manager.metrics;
    PrintProgram(site, site.manager);
    PrintProgram(site, site.sender);
    if (site.HasIntakeServer())
        PrintProgram(site, site.intake);
    if (site.WaitsForDirectory())
        PrintLine("directory",
                  "there was none when dlmanager started, and it stands idle: restart it once the "
                  "directory answers (dlctl directory wait)");
    if (site.manager.counted) {
        PrintLine("lists", FormatText("%lld with %lld members",
                                      static_cast<long long>(counts[Metric::kLists]),
                                      static_cast<long long>(counts[Metric::kMembers])));
        PrintLine("last refresh",
                  Moment(site, counts[Metric::kLastRefresh]) +
                      FormatText(", %lld failed since the first start",
                                 static_cast<long long>(counts[Metric::kRefreshesFailed])));
    }
    PrintQueue(site);
    for (std::size_t i = 0; i < site.digests.size() && i < kShownDigests; ++i)
        PrintLine(i == 0 ? "next digests" : "",
                  Moment(site, site.digests[i].due) + "  " + site.digests[i].list);
    for (const ProgramState* program : {&site.manager, &site.sender, &site.intake})
        if (program->metrics.last_error_at != 0)
            PrintLine("last error", UtcText(program->metrics.last_error_at) + "  " + program->name +
                                        ": " + program->metrics.last_error);
    return status;
}

}  // namespace

void AddStatusCommands(CLI::App* program, int* status)
{
    auto json = std::make_shared<bool>(false);
    CLI::App* command = program->add_subcommand(
        "status",
        "Show whether the service runs and what waits. Exit status 0 when it runs, else 3");
    command->add_flag("--json", *json, "As JSON");
    command->callback([=] { *status = Status(*json); });
}

}  // namespace dl
