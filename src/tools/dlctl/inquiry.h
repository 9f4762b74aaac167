// What became of a message, from the queue and the logs.
//
// A Message-ID leads to queue identifiers through the intake's log lines and the messages that are
// still in the queue. An identifier leads to the service's pass over the message (its lines stand
// between two "Processing message" lines, the service being one thread), that to the entries which
// it made, and those to the relay's answers.
#pragma once

#include <cstddef>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/queue/queue.h"
#include "tools/dlctl/log_search.h"

namespace dl
{

class Inquiry
{
 public:
    struct Event {
        std::string time;  // as the log has it
        std::string id;    // of the queue, eight hexadecimal digits
        std::string text;  // from the log: escape it for a terminal
    };

    // `asked` is a queue identifier or a Message-ID. Searches `logs` and their rotated
    // predecessors.
    Inquiry(const std::string& asked, const std::vector<std::string>& logs);
    void Run();

    [[nodiscard]] const std::vector<std::string>& Ids() const { return ids_; }
    [[nodiscard]] const std::vector<Event>& Events() const { return events_; }
    // What of it is in the queue now, each with its identifier.
    [[nodiscard]] const std::vector<std::pair<std::string, EntryOverview>>& Queued() const
    {
        return queued_;
    }
    // Why the queue could not be looked at; empty when it could.
    [[nodiscard]] const std::string& QueueTrouble() const { return queue_problem_; }
    [[nodiscard]] std::vector<std::string> Searched() const;
    [[nodiscard]] const std::vector<std::string>& Skipped() const { return skipped_; }

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
    void Tell(const std::string& time, const std::string& id, const std::string& text);

    const std::string asked_;
    std::vector<LogGroup> groups_;
    std::vector<std::string> skipped_;
    std::vector<std::string> ids_;  // in the order in which they came up
    std::vector<Event> events_;
    std::vector<std::pair<std::string, EntryOverview>> queued_;
    std::string queue_problem_;
    std::unordered_map<std::string, Tally> tallies_;  // by what they are of
};

}  // namespace dl
