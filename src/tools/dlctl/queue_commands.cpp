// dlctl queue: list, show, remove, hold, release.

#include <cstdio>
#include <ctime>
#include <memory>

#include "platform/config/config.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "platform/queue/queue.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

struct QueueOptions {
    std::string channel;
    std::vector<std::string> ids;
    std::string to;
    std::size_t limit = 0;
    bool json = false;
    bool message = false;
    bool force = false;
};

bool OpenQueue()
{
    if (MQInit("", "dlctl"))
        return true;
    Complain(kExitFailed, "the queue cannot be opened");
    return false;
}

bool ParseId(const std::string& text, unsigned long* id)
{
    char* end = nullptr;
    *id = std::strtoul(text.c_str(), &end, 16);
    if (!text.empty() && *end == '\0' && *id <= 0xFFFFFFFFUL)
        return true;
    Complain(kExitFailed, "not a queue identifier: %s", text.c_str());
    return false;
}

std::string TimeText(std::int64_t seconds)
{
    const std::time_t when = seconds;
    std::tm date{};
    char text[32];
    gmtime_r(&when, &date);
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &date);
    return text;
}

Json ItemJson(const QueueItem& item)
{
    return {{"id", FormatText("%08lX", item.id)},
            {"channel", item.channel},
            {"sender", item.sender},
            {"recipients", item.recipients},
            {"bytes", item.bytes},
            {"closed", TimeText(item.closed)},
            {"attempts", item.attempts},
            {"taken", item.taken},
            {"due", item.due > 0 ? Json(TimeText(item.due)) : Json()},
            {"tries", item.tries},
            {"problem", item.problem},
            {"held_from", item.origin.empty() ? Json() : Json(item.origin)}};
}

// What stands behind the sender in the list.
std::string StateText(const QueueItem& item)
{
    if (item.taken)
        return " (taken)";
    if (item.tries == 0)
        return "";
    return FormatText(" (tried %d, again %s)", item.tries,
                      item.due > 0 ? TimeText(item.due).c_str() : "now");
}

int List(const QueueOptions& options)
{
    std::vector<QueueItem> items;
    if (!OpenQueue() || !ListMQ(options.channel, options.limit, &items)) {
        return Complain(kExitFailed, "the queue cannot be read");
    }
    if (options.json) {
        Json all = Json::array();
        for (const QueueItem& item : items)
            all.push_back(ItemJson(item));
        PrintJson(all);
        return 0;
    }
    std::printf("%-8s  %-8s  %-20s  %10s  %6s  %s\n", "ID", "CHANNEL", "SINCE", "BYTES", "RCPTS",
                "SENDER");
    for (const QueueItem& item : items)
        std::printf("%08lX  %-8s  %-20s  %10lld  %6u  %s%s\n", item.id, item.channel.c_str(),
                    TimeText(item.closed).c_str(), static_cast<long long>(item.bytes),
                    item.recipients, EscapeForLog(item.sender.c_str()).c_str(),
                    StateText(item).c_str());
    std::printf("%zu message(s)\n", items.size());
    return 0;
}

Json EnvelopeJson(stEnvelope* envelope)
{
    Json recipients = Json::array();
    envelope->recipients.cursor = nullptr;
    while (const _envRecip* to = envelope->recipients.Next())
        recipients.push_back(std::string(to->address));
    return {{"sender", envelope->SenderAddress()}, {"recipients", recipients}};
}

void PrintFile(const std::string& path)
{
    LineReader in(path);
    if (!in.IsOpen())
        Complain(kExitFailed, "the message file is missing: %s", path.c_str());
    while (const auto line = in.Next())
        std::fwrite(line->data(), 1, line->size(), stdout);
}

int Show(const QueueOptions& options)
{
    unsigned long id = 0;
    if (!ParseId(options.ids.front(), &id) || !OpenQueue())
        return 1;
    std::vector<QueueItem> items;
    if (!FindMQ(id, &items))
        return Complain(kExitFailed, "the queue cannot be read");
    if (items.empty()) {
        return Complain(kExitNotFound, "no message %08lX in the queue", id);
    }
    const std::string path = GetMQPathName(id, ".msg");
    if (options.message) {
        PrintFile(path);
        return 0;
    }
    const EnvelopeResult found = GetMQEnvelope(id);
    Json shown = ItemJson(items.front());
    shown["channels"] = Json::array();
    for (const QueueItem& item : items)
        shown["channels"].push_back(item.channel);
    shown["file"] = path;
    shown["envelope"] = found.envelope ? EnvelopeJson(found.envelope.get()) : Json();
    if (options.json) {
        PrintJson(shown);
        return 0;
    }
    const QueueItem& item = items.front();
    std::printf(
        "id         %08lX\nchannel    %s\nclosed     %s\nbytes      %lld\nattempts   %d%s\n", id,
        item.channel.c_str(), TimeText(item.closed).c_str(), static_cast<long long>(item.bytes),
        item.attempts, item.taken ? " (taken)" : "");
    if (!item.origin.empty())
        std::printf("held from  %s\n", EscapeForLog(item.origin.c_str()).c_str());
    if (item.tries > 0)
        std::printf("tries      %d\ndue        %s\nproblem    %s\n", item.tries,
                    item.due > 0 ? TimeText(item.due).c_str() : "now",
                    EscapeForLog(item.problem.c_str()).c_str());
    std::printf("file       %s\nsender     %s\n", path.c_str(),
                EscapeForLog(item.sender.c_str()).c_str());
    if (!found.envelope)
        return 0;
    found.envelope->recipients.cursor = nullptr;
    while (const _envRecip* to = found.envelope->recipients.Next())
        std::printf("recipient  %s\n", EscapeForLog(std::string(to->address).c_str()).c_str());
    return 0;
}

int Explain(QueueChange change, unsigned long id, const char* done)
{
    switch (change) {
        case QueueChange::kDone:
            std::printf("%08lX %s\n", id, done);
            return 0;
        case QueueChange::kNotThere:
            return Complain(kExitNotFound, "no message %08lX there", id);
        case QueueChange::kTaken:
            return Complain(kExitFailed, "%08lX is being handled, try again", id);
        case QueueChange::kFailed:
            break;
    }
    return Complain(kExitFailed, "the queue could not be changed for %08lX", id);
}

template <typename Do>
int ForEach(const QueueOptions& options, Do do_one)
{
    int status = 0;
    if (!OpenQueue())
        return 1;
    for (const std::string& text : options.ids) {
        unsigned long id = 0;
        const int result = ParseId(text, &id) ? do_one(id) : 1;
        status = status == 0 ? result : status;
    }
    return status;
}

int Remove(const QueueOptions& options)
{
    return ForEach(options,
                   [](unsigned long id) { return Explain(RemoveMQItem(id), id, "removed"); });
}

QueueChange HoldAll(unsigned long id)
{
    std::vector<QueueItem> items;
    if (!FindMQ(id, &items))
        return QueueChange::kFailed;
    QueueChange result = QueueChange::kNotThere;
    for (const QueueItem& item : items) {
        if (item.channel == kHoldChannel)
            continue;
        const QueueChange change = MoveMQItem(id, item.channel, kHoldChannel);
        if (result == QueueChange::kNotThere || change != QueueChange::kDone)
            result = change;
    }
    return result;
}

int Hold(const QueueOptions& options)
{
    return ForEach(options, [](unsigned long id) { return Explain(HoldAll(id), id, "held"); });
}

// Whether a program of this site takes messages from the channel.
bool IsServed(const std::string& channel)
{
    return channel == kInputChannel ||
           channel == GetPrivateProfileString("Relay", "Channel", kOutputChannel, 64, kMainConfig);
}

// What speaks against putting the held message back where it was; empty when nothing does.
std::string WhyNotBack(unsigned long id)
{
    std::vector<QueueItem> items;
    if (!FindMQ(id, &items))
        return "the queue cannot be read";
    for (const QueueItem& item : items) {
        if (item.channel != kHoldChannel)
            continue;
        if (item.origin.empty())
            return "it is not known where it was held from; give --to CHANNEL";
        if (!IsServed(item.origin))
            return "it was held from channel " + EscapeForLog(item.origin.c_str()) +
                   ", which no program serves; give --to CHANNEL, and --force for that one";
    }
    return "";
}

int ReleaseOne(unsigned long id, const QueueOptions& options)
{
    if (!options.to.empty())
        return Explain(MoveMQItem(id, kHoldChannel, options.to), id, "released");
    if (const std::string problem = WhyNotBack(id); !problem.empty())
        return Complain(kExitFailed, "%08lX stays: %s", id, problem.c_str());
    return Explain(ReleaseMQItem(id), id, "released");
}

int Release(const QueueOptions& options)
{
    if (options.to == kHoldChannel)
        return Complain(kExitFailed, "%s is where they are", kHoldChannel);
    if (!options.to.empty() && !options.force && !IsServed(options.to))
        return Complain(kExitFailed, "no program serves channel %s; --force puts it there",
                        EscapeForLog(options.to.c_str()).c_str());
    return ForEach(options, [&](unsigned long id) { return ReleaseOne(id, options); });
}

}  // namespace

void AddQueueCommands(CLI::App* program, int* status)
{
    auto options = std::make_shared<QueueOptions>();
    CLI::App* queue = program->add_subcommand("queue", "Messages waiting in the queue");
    queue->require_subcommand(1);

    CLI::App* list = queue->add_subcommand("list", "Show what waits, in the order of handling");
    list->add_option("channel", options->channel, "Only this channel: dl, dlout, dlhold");
    list->add_option("--limit", options->limit, "At most so many");
    list->add_flag("--json", options->json, "As JSON");
    list->callback([=] { *status = List(*options); });

    CLI::App* show = queue->add_subcommand("show", "Show one message's envelope or text");
    show->add_option("id", options->ids, "Identifier, hexadecimal")->required()->expected(1);
    show->add_flag("--json", options->json, "As JSON");
    show->add_flag("--message", options->message, "The message itself");
    show->callback([=] { *status = Show(*options); });

    CLI::App* remove = queue->add_subcommand("remove", "Remove messages for good");
    remove->add_option("id", options->ids, "Identifiers, hexadecimal")->required();
    remove->callback([=] { *status = Remove(*options); });

    CLI::App* hold = queue->add_subcommand("hold", "Set messages aside in channel dlhold");
    hold->add_option("id", options->ids, "Identifiers, hexadecimal")->required();
    hold->callback([=] { *status = Hold(*options); });

    CLI::App* release = queue->add_subcommand("release", "Put held messages back");
    release->add_option("id", options->ids, "Identifiers, hexadecimal")->required();
    release->add_option("--to", options->to, "Channel (default: where it was held from)");
    release->add_flag("--force", options->force, "Into a channel that no program serves");
    release->callback([=] { *status = Release(*options); });
}

}  // namespace dl
