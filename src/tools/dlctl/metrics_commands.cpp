// dlctl metrics: the text format of Prometheus, version 0.0.4. Names and labels are for good:
// alerts and graphs of other people stand on them.

#include <cstdarg>
#include <cstdio>
#include <memory>

#include "platform/files/files.h"
#include "platform/log/format.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/site_state.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

// A value of a label, as the format wants it.
std::string Quoted(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        if (c == '\\' || c == '"')
            out += '\\';
        out += c == '\n' ? 'n' : c;
    }
    return out + "\"";
}

class Exposition
{
 public:
    void Family(const char* name, const char* type, const char* help)
    {
        name_ = name;
        text_ +=
            FormatText("# HELP dlmanager_%s %s\n# TYPE dlmanager_%s %s\n", name, help, name, type);
    }
    void Sample(std::int64_t value)
    {
        text_ += FormatText("dlmanager_%s %lld\n", name_, static_cast<long long>(value));
    }
    void Sample(const char* label, const std::string& label_value, std::int64_t value)
    {
        text_ += FormatText("dlmanager_%s{%s=%s} %lld\n", name_, label, Quoted(label_value).c_str(),
                            static_cast<long long>(value));
    }
    [[nodiscard]] const std::string& Text() const { return text_; }

 private:
    const char* name_ = "";
    std::string text_;
};

struct Place {
    Metric metric;
    const char* value;  // of the family's label; null: there is none
};
enum class From { kManager, kSender, kIntake, kAll };
struct CounterFamily {
    const char* name;
    const char* type;
    const char* help;
    From from;
    const char* label;
    std::vector<Place> places;
};

const std::vector<CounterFamily>& Families()
{
    static const std::vector<CounterFamily> families = {
        {"messages_total",
         "counter",
         "Messages taken off the input channel.",
         From::kManager,
         nullptr,
         {{Metric::kMessages, nullptr}}},
        {"postings_total",
         "counter",
         "Postings that came to a list.",
         From::kManager,
         nullptr,
         {{Metric::kPostings, nullptr}}},
        {"postings_delivered_total",
         "counter",
         "Postings sent to the immediate members.",
         From::kManager,
         nullptr,
         {{Metric::kPostingsDelivered, nullptr}}},
        {"deliveries_total",
         "counter",
         "Deliveries of postings, one for each member.",
         From::kManager,
         nullptr,
         {{Metric::kDeliveries, nullptr}}},
        {"forwarded_to_owner_total",
         "counter",
         "Messages forwarded to a list's owner.",
         From::kManager,
         nullptr,
         {{Metric::kForwarded, nullptr}}},
        {"bounces_total",
         "counter",
         "Messages bounced to their senders.",
         From::kManager,
         "reason",
         {{Metric::kBouncedUnknownAddress, "unknown_address"},
          {Metric::kBouncedBlocked, "blocked_member"},
          {Metric::kBouncedNotMember, "not_member"},
          {Metric::kBouncedUnknownCommand, "unknown_command"},
          {Metric::kBouncedNotRewritten, "not_rewritten"}}},
        {"refusals_total",
         "counter",
         "Postings that a list did not take.",
         From::kManager,
         "reason",
         {{Metric::kRefusedBlocked, "blocked_member"},
          {Metric::kRefusedNotMember, "not_member"},
          {Metric::kRefusedSpamDiscarded, "spam_discarded"},
          {Metric::kRefusedSpamBounced, "spam_bounced"},
          {Metric::kRefusedUnusableList, "unusable_list"}}},
        {"requests_total",
         "counter",
         "Commands sent to request addresses.",
         From::kManager,
         "kind",
         {{Metric::kRequestSubscribe, "subscribe"},
          {Metric::kRequestUnsubscribe, "unsubscribe"},
          {Metric::kRequestArchive, "archive"},
          {Metric::kRequestUnknown, "unknown"}}},
        {"confirmations_total",
         "counter",
         "Requests that were confirmed.",
         From::kManager,
         "kind",
         {{Metric::kConfirmedSubscribe, "subscribe"},
          {Metric::kConfirmedUnsubscribe, "unsubscribe"},
          {Metric::kConfirmedArchive, "archive"}}},
        {"held_total",
         "counter",
         "Messages set aside in channel dlhold.",
         From::kAll,
         nullptr,
         {{Metric::kHeld, nullptr}}},
        {"digests_total",
         "counter",
         "Digests sent.",
         From::kManager,
         nullptr,
         {{Metric::kDigests, nullptr}}},
        {"digest_deliveries_total",
         "counter",
         "Deliveries of digests, one for each member.",
         From::kManager,
         nullptr,
         {{Metric::kDigestDeliveries, nullptr}}},
        {"directory_refreshes_total",
         "counter",
         "Readings of all lists from the directory.",
         From::kManager,
         "result",
         {{Metric::kRefreshes, "done"}, {Metric::kRefreshesFailed, "failed"}}},
        {"lists",
         "gauge",
         "Lists in the cache.",
         From::kManager,
         nullptr,
         {{Metric::kLists, nullptr}}},
        {"members",
         "gauge",
         "Members of the lists in the cache.",
         From::kManager,
         nullptr,
         {{Metric::kMembers, nullptr}}},
        {"relay_recipients_total",
         "counter",
         "Answers of the relay for recipients; deferred counts each try.",
         From::kSender,
         "result",
         {{Metric::kRelayDelivered, "delivered"},
          {Metric::kRelayRefused, "refused"},
          {Metric::kRelayLater, "deferred"},
          {Metric::kRelayUnknown, "unanswered"},
          {Metric::kRelayGivenUp, "given_up"}}},
        {"relay_reports_total",
         "counter",
         "Delivery status reports to senders.",
         From::kSender,
         nullptr,
         {{Metric::kRelayReports, nullptr}}},
        {"relay_connect_failures_total",
         "counter",
         "Connections that the relay did not take.",
         From::kSender,
         nullptr,
         {{Metric::kRelayConnectFailed, nullptr}}},
        {"relay_up",
         "gauge",
         "1 when the relay could be used last time, else 0.",
         From::kSender,
         nullptr,
         {{Metric::kRelayUp, nullptr}}},
        {"intake_messages_total",
         "counter",
         "Messages, or recipients, at the intake.",
         From::kIntake,
         "result",
         {{Metric::kIntakeAccepted, "accepted"},
          {Metric::kIntakeRefused, "refused"},
          {Metric::kIntakeRefusedForNow, "refused_for_now"}}},
        {"intake_recipients_total",
         "counter",
         "Recipients of accepted messages.",
         From::kIntake,
         nullptr,
         {{Metric::kIntakeRecipients, nullptr}}},
    };
    return families;
}

std::int64_t ValueOf(const SiteState& site, From from, Metric metric)
{
    switch (from) {
        case From::kManager:
            return site.manager.metrics[metric];
        case From::kSender:
            return site.sender.metrics[metric];
        case From::kIntake:
            return site.intake.metrics[metric];
        case From::kAll:
            break;
    }
    return site.manager.metrics[metric] + site.sender.metrics[metric] + site.intake.metrics[metric];
}

void AddPrograms(const SiteState& site, Exposition* out)
{
    out->Family("up", "gauge", "1 when the program runs, else 0.");
    for (const ProgramState* program : {&site.manager, &site.sender})
        out->Sample("program", program->name, program->pid != 0 ? 1 : 0);
    if (site.HasIntakeServer())  // else it is called for each message: it is not down
        out->Sample("program", site.intake.name, site.intake.pid != 0 ? 1 : 0);
    out->Family("start_time_seconds", "gauge", "When the program was started last.");
    for (const ProgramState* program : {&site.manager, &site.sender, &site.intake})
        if (program->metrics[Metric::kStartedAt] != 0)
            out->Sample("program", program->name, program->metrics[Metric::kStartedAt]);
    out->Family("errors_total", "counter", "Level 1 lines of the log.");
    for (const ProgramState* program : {&site.manager, &site.sender, &site.intake})
        out->Sample("program", program->name, program->metrics[Metric::kErrors]);
    out->Family("last_error_time_seconds", "gauge", "When the last level 1 line was logged.");
    for (const ProgramState* program : {&site.manager, &site.sender, &site.intake})
        if (program->metrics.last_error_at != 0)
            out->Sample("program", program->name, program->metrics.last_error_at);
}

// The three channels of every host always, so that a graph of them never breaks off.
void AddQueue(const SiteState& site, Exposition* out)
{
    const bool readable = site.queue.state == QueueOverview::State::kRead;
    out->Family("queue_readable", "gauge", "1 when the queue's index can be read, else 0.");
    out->Sample(readable ? 1 : 0);
    if (!readable)
        return;
    std::vector<ChannelOverview> channels = site.queue.channels;
    for (const char* name : {kInputChannel, kOutputChannel, kHoldChannel}) {
        bool there = false;
        for (const ChannelOverview& one : channels)
            there = there || one.channel == name;
        if (!there)
            channels.push_back({.channel = name});
    }
    out->Family("queue_messages", "gauge", "Messages in a channel.");
    for (const ChannelOverview& one : channels)
        out->Sample("channel", one.channel, one.waiting);
    out->Family("queue_deferred_messages", "gauge", "Of them, those that wait for another try.");
    for (const ChannelOverview& one : channels)
        out->Sample("channel", one.channel, one.put_back);
    out->Family("queue_oldest_age_seconds", "gauge",
                "Time since a channel's oldest message came into the queue; 0 when it is empty.");
    for (const ChannelOverview& one : channels)
        out->Sample("channel", one.channel,
                    one.oldest == 0 ? 0 : std::max<std::int64_t>(site.now - one.oldest, 0));
}

void AddTimes(const SiteState& site, Exposition* out)
{
    std::int64_t late = 0;
    std::int64_t overdue = 0;
    for (const DigestDue& digest : site.digests) {
        if (digest.due == 0 || digest.due >= site.now)
            continue;
        ++overdue;
        late = std::max(late, site.now - digest.due);
    }
    out->Family("digest_lateness_seconds", "gauge",
                "How long the digest that is most overdue has been due; 0 when none is.");
    out->Sample(late);
    out->Family("digests_overdue", "gauge", "Lists whose digest is due and not sent.");
    out->Sample(overdue);
    out->Family("waits_for_directory", "gauge",
                "1 while the service stands idle because it found no directory at its start.");
    out->Sample(site.WaitsForDirectory() ? 1 : 0);
    out->Family("directory_refresh_age_seconds", "gauge",
                "Time since the lists were read from the directory.");
    if (const std::int64_t last = site.manager.metrics[Metric::kLastRefresh])
        out->Sample(std::max<std::int64_t>(site.now - last, 0));
}

std::string Expose(const SiteState& site)
{
    Exposition out;
    AddPrograms(site, &out);
    AddQueue(site, &out);
    AddTimes(site, &out);
    for (const CounterFamily& family : Families()) {
        if (family.places.front().metric == Metric::kRelayUp && !site.sender.counted)
            continue;  // dlsend is not used here: the relay is not down
        out.Family(family.name, family.type, family.help);
        for (const Place& place : family.places) {
            const std::int64_t value = ValueOf(site, family.from, place.metric);
            if (place.value)
                out.Sample(family.label, place.value, value);
            else
                out.Sample(value);
        }
    }
    return out.Text();
}

int Print(const std::string& file)
{
    constexpr mode_t kForAll = 0644;
    const std::string text = Expose(ReadSiteState());
    if (file.empty())
        return std::fputs(text.c_str(), stdout) >= 0 ? kExitOk : kExitFailed;
    if (!ReplaceFile(file, text, kForAll))
        return Complain(kExitFailed, "%s cannot be written", file.c_str());
    return kExitOk;
}

}  // namespace

void AddMetricsCommands(CLI::App* program, int* status)
{
    auto file = std::make_shared<std::string>();
    CLI::App* command =
        program->add_subcommand("metrics", "Print metrics in the text format of Prometheus");
    command->add_option("--output", *file,
                        "Put them into this file, whole or not at all, for a textfile collector");
    command->callback([=] { *status = Print(*file); });
}

}  // namespace dl
