#include "tools/dlctl/inquiry.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "platform/address/message_id.h"
#include "platform/log/format.h"
#include "tools/dlctl/log_words.h"

namespace dl
{
namespace
{

constexpr std::size_t kMostIds = 32;                     // that one question follows
constexpr std::size_t kMostNamed = 20;                   // recipients, of each kind
constexpr std::chrono::milliseconds kMessageFiles{300};  // for looking into the queue's messages
constexpr std::size_t kHeaderBytes = 16'384;

// Why the queue cannot be looked at, which is not to be told as "not in the queue"; empty when it
// can, or there is none.
std::string QueueProblem()
{
    const QueueOverview queue = ReadQueueOverview(QueuePath());
    if (queue.state == QueueOverview::State::kRead && queue.format < kQueueFormat)
        return "the index is of an older format, the service brings it up to date when it starts";
    return queue.state == QueueOverview::State::kNoQueue ? "" : queue.cause;
}

}  // namespace

Inquiry::Inquiry(const std::string& asked, const std::vector<std::string>& logs) : asked_(asked)
{
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
    if (IsQueueId(asked_))
        Add(NormalId(asked_));
    else
        FollowMessageId();
    for (std::size_t i = 0; i < ids_.size(); ++i)  // Follow may add some
        Follow(std::string(ids_[i]));
    queue_problem_ = QueueProblem();
    if (queue_problem_.empty())
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
    const std::string core = CoreOf(asked_);
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
    const std::string core = CoreOf(asked_);
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
        if (head.find(core) == std::string_view::npos)
            continue;
        MessageIdFinder finder;  // the text may stand in other headers before it
        finder.Read(read);
        if (IsMessageId(finder.Text(), core))
            Add(IdBehind(std::filesystem::path(path).filename().string(), ""));
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

void Inquiry::Tell(const std::string& time, const std::string& id, const std::string& text)
{
    events_.push_back({time, id, text});
}

std::vector<std::string> Inquiry::Searched() const
{
    std::vector<std::string> paths;
    for (const LogGroup& group : groups_)
        paths.insert(paths.end(), group.Paths().begin(), group.Paths().end());
    return paths;
}

}  // namespace dl
