// dlctl explain: what became of a message, from the queue and the logs.
//
// A Message-ID leads to queue identifiers through the intake's log lines and the messages that are
// still in the queue. An identifier leads to the service's pass over the message (its lines stand
// between two "Processing message" lines, the service being one thread), that to the entries which
// it made, and those to the relay's answers.

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <unordered_map>

#include "platform/address/address.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "platform/queue/queue.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/log_search.h"
#include "tools/dlctl/site_state.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

constexpr std::size_t kMostIds = 32;                     // that one question follows
constexpr std::size_t kMostNamed = 20;                   // recipients, of each kind
constexpr std::chrono::milliseconds kMessageFiles{300};  // for looking into the queue's messages
constexpr std::size_t kHeaderBytes = 16'384;
constexpr std::string_view kHeader = "Message-ID:";

struct ExplainOptions {
    std::string asked;
    std::vector<std::string> logs;
    bool json = false;
};

struct Event {
    std::string time;
    std::string id;
    std::string text;
};

class Inquiry
{
 public:
    explicit Inquiry(const ExplainOptions& options);
    void Run();
    [[nodiscard]] bool Found() const { return !events_.empty() || !queued_.empty(); }
    [[nodiscard]] Json AsJson() const;
    void Print() const;

 private:
    struct Tally {  // lines of one kind about one identifier that are told as one event
        std::size_t count = 0;
        std::string first;
        std::string last_answer;
        std::string time;
    };

    void FollowMessageId();
    void LookIntoQueue();
    void Follow(const std::string& id);
    void FollowPass(const LogGroup& group, LogGroup::Line line, const std::string& id);
    void TellPass(const LogRecord& record, const std::string& id, Tally* members);
    void TellLine(const LogRecord& record, const std::string& id);
    bool TellRelay(const LogRecord& record, const std::string& id);
    void EndTallies(const std::string& id);
    void Add(const std::string& id);
    void Tell(const std::string& time, const std::string& id, const std::string& text)
    {
        events_.push_back({time, id, text});
    }

    const ExplainOptions& options_;
    std::vector<LogGroup> groups_;
    std::vector<std::string> skipped_;
    std::vector<std::string> ids_;  // in the order in which they came up
    std::vector<Event> events_;
    std::vector<std::pair<std::string, EntryOverview>> queued_;
    std::unordered_map<std::string, Tally> tallies_;  // by what they are of
};

bool IsQueueId(const std::string& text)
{
    return !text.empty() && text.size() <= 8 && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isxdigit(static_cast<unsigned char>(c)) != 0;
    });
}

std::string Normal(std::string_view hex)
{
    return FormatText("%08lX", std::strtoul(std::string(hex).c_str(), nullptr, 16));
}

// The hexadecimal number that stands behind `before` in `text`; empty when there is none.
std::string IdBehind(std::string_view text, std::string_view before)
{
    const std::size_t at = text.find(before);
    if (at == std::string_view::npos)
        return "";
    const std::string_view rest = text.substr(at + before.size());
    std::size_t size = 0;
    while (size < rest.size() && std::isxdigit(static_cast<unsigned char>(rest[size])) != 0)
        ++size;
    return size >= 1 && size <= 8 ? Normal(rest.substr(0, size)) : "";
}

// The text between the last '<' before `end` and it, for addresses.
std::string Between(std::string_view text, std::string_view begin, std::string_view end)
{
    const std::size_t from = text.find(begin);
    if (from == std::string_view::npos)
        return "";
    const std::size_t to = text.find(end, from + begin.size());
    return std::string(text.substr(from + begin.size(),
                                   to == std::string_view::npos ? to : to - from - begin.size()));
}

// A Message-ID without its angle brackets.
std::string CoreOf(const std::string& id)
{
    return id.starts_with('<') && id.ends_with('>') ? id.substr(1, id.size() - 2) : id;
}

// Whether that header's value, folded or not, is this one.
bool IsMessageId(std::string_view value, const std::string& core)
{
    const std::size_t first = value.find_first_not_of(" \t\r\n");
    const std::size_t last = value.find_last_not_of(" \t\r\n");
    if (first == std::string_view::npos)
        return false;
    value = value.substr(first, last - first + 1);
    return value == core || value.find("<" + core + ">") != std::string_view::npos;
}

// Whether `id` stands in `line` by itself.
bool HasWord(std::string_view line, std::string_view id)
{
    for (std::size_t at = line.find(id); at != std::string_view::npos; at = line.find(id, at + 1)) {
        const auto letter = [&](std::size_t i) {
            return i < line.size() && std::isalnum(static_cast<unsigned char>(line[i])) != 0;
        };
        if ((at == 0 || !letter(at - 1)) && !letter(at + id.size()))
            return true;
    }
    return false;
}

// What only says that work goes on.
bool IsNoise(std::string_view text)
{
    for (const char* begin :
         {"Done", "Running ", "Loading RBL ", "Found mailing list", "Try loading", "There are ",
          "There is no ", "Archive mode", "Message digest ", "Return-receipt", "This is ",
          "Auto subscription is", "Mail posting is", "Invalid posting will", "Processing message",
          "List owner is"})
        if (text.starts_with(begin))
            return true;
    return text.find("mailing list(s) are found") != std::string_view::npos;
}

// Lines of the service that belong to no message any more.
bool EndsPass(std::string_view text)
{
    for (const char* begin : {"Processing message (", "Refreshing cache", "Time to ", "Terminating",
                              "Initialize mailing list", "Next archive index"})
        if (text.starts_with(begin))
            return true;
    return false;
}

Inquiry::Inquiry(const ExplainOptions& options) : options_(options)
{
    const std::vector<std::string> logs = options.logs.empty() ? ConfiguredLogs() : options.logs;
    for (const std::string& path : logs)
        groups_.emplace_back(path, &skipped_);
}

void Inquiry::Add(const std::string& id)
{
    if (!id.empty() && ids_.size() < kMostIds &&
        std::find(ids_.begin(), ids_.end(), id) == ids_.end())
        ids_.push_back(id);
}

void Inquiry::Run()
{
    if (IsQueueId(options_.asked))
        Add(Normal(options_.asked));
    else
        FollowMessageId();
    for (std::size_t i = 0; i < ids_.size(); ++i)  // Follow may add some
        Follow(std::string(ids_[i]));
    for (const std::string& id : ids_)
        for (EntryOverview& entry :
             ReadQueueEntry(QueuePath(), std::strtoul(id.c_str(), nullptr, 16)))
            queued_.emplace_back(id, std::move(entry));
    std::stable_sort(events_.begin(), events_.end(), [](const Event& a, const Event& b) {
        const auto dated = [](const Event& e) {
            return !e.time.empty() && std::isdigit(static_cast<unsigned char>(e.time[0])) != 0;
        };
        return dated(a) && dated(b) && a.time < b.time;
    });
}

void Inquiry::FollowMessageId()
{
    const std::string core = CoreOf(options_.asked);
    if (core.empty())
        return;
    for (const LogGroup& group : groups_)
        group.Find(core, [&](const LogGroup::Line& line) {
            LogRecord record;
            if (ParseLogLine(line.text, &record) && record.module == "DL Intake") {
                const std::size_t at = record.text.rfind(", Message-ID ");
                if (at != std::string_view::npos && IsMessageId(record.text.substr(at + 13), core))
                    Add(IdBehind(record.text, "Message "));
            }
            return ids_.size() < kMostIds;
        });
    LookIntoQueue();
}

// The newest first; a very long queue is not read to its end.
void Inquiry::LookIntoQueue()
{
    std::vector<std::string> names;
    std::error_code error;
    for (auto file = std::filesystem::directory_iterator(QueuePath() + "/msg", error);
         !error && file != std::filesystem::directory_iterator(); file.increment(error))
        names.push_back(file->path());
    std::sort(names.rbegin(), names.rend());
    const auto end = std::chrono::steady_clock::now() + kMessageFiles;
    const std::string core = CoreOf(options_.asked);
    std::string header(kHeaderBytes, '\0');
    for (const std::string& path : names) {
        if (std::chrono::steady_clock::now() > end) {
            skipped_.push_back(QueuePath() + "/msg (the older messages)");
            return;
        }
        std::FILE* file = std::fopen(path.c_str(), "rb");
        if (!file)
            continue;
        const std::size_t got = std::fread(header.data(), 1, header.size(), file);
        std::fclose(file);
        const std::string_view read = std::string_view(header).substr(0, got);
        const std::string_view head = read.substr(0, read.find("\r\n\r\n"));
        const std::size_t at = head.find(core);
        if (at == std::string_view::npos)
            continue;
        // The line, and the one before when it is folded.
        std::size_t begin = head.rfind('\n', at);
        begin = begin == std::string_view::npos ? 0 : begin + 1;
        if (begin > 1 && (head[begin] == ' ' || head[begin] == '\t')) {
            begin = head.rfind('\n', begin - 2);
            begin = begin == std::string_view::npos ? 0 : begin + 1;
        }
        const std::string_view line = head.substr(begin, head.find('\n', at) - begin);
        if (StartsWithNoCase(line, kHeader) && IsMessageId(line.substr(kHeader.size()), core))
            Add(IdBehind(path, "/msg/"));
    }
}

void Inquiry::Follow(const std::string& id)
{
    const std::string plain = FormatText("%lX", std::strtoul(id.c_str(), nullptr, 16));
    for (const LogGroup& group : groups_) {
        group.Find(plain, [&](const LogGroup::Line& line) {
            LogRecord record;
            if (!HasWord(line.text, plain) && !HasWord(line.text, id))
                return true;
            if (!ParseLogLine(line.text, &record))
                return true;
            if (record.module == "DL Manager" &&
                record.text.starts_with("Processing message (" + plain + ")"))
                FollowPass(group, line, id);
            else if (record.module != "DL Manager" && !TellRelay(record, id))
                TellLine(record, id);
            return true;
        });
    }
    EndTallies(id);
}

void Inquiry::FollowPass(const LogGroup& group, LogGroup::Line line, const std::string& id)
{
    LogRecord record;
    Tally members;
    (void)ParseLogLine(line.text, &record);
    Tell(record.time, id, "the list manager takes it up");
    while (group.Next(&line)) {
        if (!ParseLogLine(line.text, &record) ||
            (record.module != "DL Manager" && record.module != "Kestrune"))
            continue;
        if (record.module == "DL Manager" && EndsPass(record.text))
            break;
        TellPass(record, id, &members);
    }
    if (members.count > 0)
        Tell(members.time, id,
             FormatText("sent to %zu member(s), the first is <%s>", members.count,
                        members.first.c_str()));
}

void Inquiry::TellPass(const LogRecord& record, const std::string& id, Tally* members)
{
    const std::string_view text = record.text;
    if (text.starts_with("Delivered ")) {
        if (members->count++ == 0)
            members->first = Between(text, " to <", ">");
        members->time = record.time;
        return;
    }
    // One recipient's members are told before the next recipient.
    if (members->count > 0 && text.starts_with("Processing recipient")) {
        Tell(members->time, id,
             FormatText("sent to %zu member(s), the first is <%s>", members->count,
                        members->first.c_str()));
        *members = {};
    }
    if (IsNoise(text))
        return;
    if (text.starts_with("Mailing list message (QID=")) {
        const std::string made = IdBehind(text, "(QID=");
        Add(made);
        Tell(record.time, id, "rewritten for the members as " + made);
    } else if (text.starts_with("Bounced ") && text.find(" size: ") != std::string_view::npos) {
        const std::string made = IdBehind(text, "Bounced ");
        Add(made);
        Tell(record.time, id, "sent back to <" + Between(text, " to: <", ">") + "> as " + made);
    } else if (text.starts_with("Processing recipient: ")) {
        Tell(record.time, id, "it is for " + std::string(text.substr(22)));
    } else {
        Tell(record.time, id, std::string(text));
    }
}

// Lines of which there is one for each recipient.
bool Inquiry::TellRelay(const LogRecord& record, const std::string& id)
{
    const struct {
        const char* begin;
        const char* words;
        bool each;  // told one by one, as far as there are few
    } kinds[] = {{"Relayed ", "the relay took it for", false},
                 {"Refused ", "the relay refused it for", true},
                 {"Not yet ", "the relay put it off for", false},
                 {"No answer for ", "the relay gave no answer for", true}};
    for (const auto& kind : kinds) {
        if (record.module != "DL Send" || !record.text.starts_with(kind.begin))
            continue;
        Tally& tally = tallies_[kind.words];
        const std::string address = Between(record.text, " to <", ">");
        const std::size_t at = record.text.find('>', record.text.find(" to <"));
        const std::string answer(at == std::string_view::npos ? "" : record.text.substr(at + 1));
        if (kind.each && tally.count < kMostNamed) {
            Tell(record.time, id,
                 FormatText("%s <%s>%s", kind.words, address.c_str(), answer.c_str()));
            ++tally.count;
            return true;
        }
        if (tally.count++ == 0)
            tally.first = address;
        tally.last_answer = answer;
        tally.time = record.time;
        return true;
    }
    return false;
}

void Inquiry::EndTallies(const std::string& id)
{
    for (const auto& [words, tally] : tallies_)
        if (!tally.last_answer.empty())
            Tell(tally.time, id,
                 tally.count == 1
                     ? words + " <" + tally.first + ">" + tally.last_answer
                     : FormatText("%s %zu recipient(s), the first is <%s>, the last answer%s",
                                  words.c_str(), tally.count, tally.first.c_str(),
                                  tally.last_answer.c_str()));
    tallies_.clear();
}

void Inquiry::TellLine(const LogRecord& record, const std::string& id)
{
    std::string text(record.text);
    const std::string begin = "Message " + id + " ";
    if (text.starts_with(begin))
        text.erase(0, begin.size());
    if (record.module == "DL Intake")
        text = "taken into the queue: " + text;
    Tell(record.time, id, text);
}

// "2 of 5 recipients delivered, 1 refused"
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

Json Inquiry::AsJson() const
{
    Json events = Json::array();
    for (const Event& event : events_)
        events.push_back({{"time", event.time}, {"id", event.id}, {"event", event.text}});
    Json queue = Json::array();
    for (const auto& [id, entry] : queued_)
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
    Json files = Json::array();
    for (const LogGroup& group : groups_)
        for (const std::string& path : group.Paths())
            files.push_back(path);
    return {{"asked", options_.asked}, {"ids", ids_},       {"events", events},
            {"queue", queue},          {"searched", files}, {"not_searched", skipped_}};
}

void Inquiry::Print() const
{
    const auto line = [](const std::string& time, const std::string& id, const std::string& text) {
        std::printf("%-23s  %s  %s\n", time.c_str(), id.c_str(),
                    EscapeForLog(text.c_str()).c_str());
    };
    for (const Event& event : events_)
        line(event.time, event.id, event.text);
    for (const auto& [id, entry] : queued_)
        line("now", id, "waits in the queue: " + Progress(entry));
    if (queued_.empty())
        std::puts("It is not in the queue any more.");
    for (const std::string& name : skipped_)
        std::printf("Not searched: %s\n", EscapeForLog(name.c_str()).c_str());
}

int Explain(const ExplainOptions& options)
{
    Inquiry inquiry(options);
    inquiry.Run();
    if (options.json)
        PrintJson(inquiry.AsJson());
    if (!inquiry.Found())
        return Complain(kExitNotFound,
                        "nothing is known of %s: it is not in the queue and not in the logs%s",
                        options.asked.c_str(), options.logs.empty() ? " (--log names others)" : "");
    if (!options.json)
        inquiry.Print();
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
    explain->footer(
        "Examples:\n  dlctl explain 6B0175F2\n  dlctl explain '<20261121.4711@example.com>'\n"
        "  dlctl explain 6B0175F2 --log /var/log/mail.log");
    explain->callback([=] { *status = Explain(*options); });
}

}  // namespace dl
