// Handing a channel's entries over to the relay: what the program dlsend does.
//
// Run takes what is due, in the order of the channel, some entries at a time, and gives each of its
// connections (a thread each) one transaction after another: always of the entry that has the
// fewest of them under way, so that a large or slow entry never stands before small ones. What the
// relay said is on disk before a connection goes on. A recipient who is refused for now is tried
// again later, with growing pauses; what is refused permanently, or not delivered in time, is told
// the sender in one report for each entry, put into channel "dl". A relay that cannot be reached
// costs no entry a try, and while it is down no entry is kept: a connection is tried without one.
// Log lines: 1 the relay's coming and going and what went wrong here, 3 one for each recipient who
// is done with, 5 the others, 6 connections. Module "DL Send".
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/queue/delivery.h"
#include "tools/dlsend/job.h"
#include "tools/dlsend/relay_settings.h"
#include "tools/dlsend/report.h"
#include "tools/dlsend/waiting_time.h"

namespace dl
{

class Handover
{
 public:
    // `stop` may be set by a signal handler. All must outlive the object.
    Handover(const RelaySettings& settings, DeliveryChannel* channel,
             const std::atomic<bool>* stop);
    ~Handover();
    Handover(const Handover&) = delete;
    Handover& operator=(const Handover&) = delete;

    // Until `stop`; with `once` until nothing is due, or the relay cannot be reached, or the queue
    // cannot be written. What was taken and not finished is given back.
    void Run(bool once);

 private:
    using Lock = std::unique_lock<std::mutex>;
    using Clock = std::chrono::steady_clock;
    struct Task {
        Job* job = nullptr;                     // null: only whether the relay can be used again
        std::vector<std::uint32_t> recipients;  // none: the entry is through
    };

    using Results = smtp::TransactionResult;

    // handover.cpp, the main thread
    void Loop(bool once);
    void LookForRoom();
    void LookAtClock();
    bool Fill();
    bool LookWhileRelayIsDown();
    bool TakeEntries(std::size_t limit);
    bool LoadTaken();
    bool Load(const DueEntry& due);
    bool PutOff(const DueEntry& due, int tries, const std::string& why);
    void Hold(const DueEntry& due, const std::string& why);
    bool WhileRelayIsDown(Lock& lock);
    void Listen();  // a thread of its own
    void Stop();
    void GiveBack(const std::vector<std::unique_ptr<Job>>& jobs, const std::deque<DueEntry>& taken);

    // handover_worker.cpp, a thread for each connection
    struct Worker {
        explicit Worker(const std::atomic<bool>* abort) : session(abort) {}
        smtp::Session session;
        bool counted = false;          // in connected_
        Clock::time_point rests = {};  // no new connection before
    };
    void Work();
    bool PickTask(const Worker& worker, Task* task);
    void Perform(Worker* worker, const Task& task);
    bool Connect(Worker* worker);
    std::optional<Results> Send(Worker* worker, const Task& task);
    void CannotConnect(Worker* worker, const std::string& problem);  // locked
    void CountConnection(Worker* worker);                            // locked
    void ReturnTask(const Task& task);

    // handover_end.cpp: what becomes of an entry
    void Settle(const Task& task, const Results& results);
    void Conclude(Job* job, DeliveryStep step, const std::function<void()>& log);
    bool Finish(const Job& job, const DeliveryStep& last, bool given_up,
                const std::function<void()>& log);
    bool RecordSurely(const Job& job, const DeliveryStep& step, bool with_report, bool given_up);
    bool RecordReport(const Job& job, const DeliveryStep& step, bool given_up);
    bool EachFailedOf(const Job& job, const DeliveryStep& step, bool given_up,
                      const std::function<bool(const FailedRecipient&)>& visit) const;
    void Forget(Job* job);
    bool IsExpired(std::int64_t closed) const;  // locked

    const RelaySettings settings_;
    DeliveryChannel* const channel_;
    const std::atomic<bool>* const stop_;
    std::atomic<bool> abort_{false};  // ends what sessions wait for

    std::mutex mutex_;  // all below
    std::condition_variable change_;
    std::list<std::unique_ptr<Job>> jobs_;  // in the order of the channel
    std::deque<DueEntry> taken_;            // not read yet
    std::size_t recipients_ = 0;            // of jobs_
    std::uint64_t turn_ = 0;
    bool once_ = false;
    bool news_ = false;         // something is to be done that came after the last look
    bool ending_ = false;       // no new transaction
    bool write_fails_ = false;  // the queue cannot be written; no new transaction meanwhile
    int connected_ = 0;
    int connecting_ = 0;
    bool no_room_ = false;  // on the queue's disk; no new transaction meanwhile
    WaitingTime waiting_time_;
    std::int64_t clock_saved_ = 0;  // when, of Uptime
    bool relay_down_ = false;
    bool due_ = false;           // something was, when it was down
    std::string relay_problem_;  // why it was down last
    bool probing_ = false;       // some connection is trying whether it is still so
    Clock::time_point next_probe_;
    std::chrono::milliseconds probe_pause_{0};
    std::mt19937 random_;
    std::vector<std::thread> threads_;
};

// One line of module "DL Send".
void SendLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace dl
