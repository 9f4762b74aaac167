#include "tools/dlsend/handover.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "platform/clock/clock.h"
#include "platform/files/machine_fault.h"
#include "platform/log/log.h"
#include "platform/queue/work.h"

namespace dl
{
namespace
{

constexpr std::size_t kMostJobs = 32;              // entries in memory
constexpr std::size_t kMostRecipients = 50'000;    // of them together, but for the first
constexpr std::size_t kMostTaken = 64;             // entries that are taken
constexpr std::chrono::milliseconds kLook{250};    // how often the queue is looked at without news
constexpr std::chrono::milliseconds kListen{100};  // for news; the end waits for it
constexpr std::chrono::milliseconds kTogether{2};  // news that come so close are one
constexpr std::chrono::milliseconds kTrouble{5000};  // the same, when it could not be read
constexpr std::chrono::seconds kEnd{20};             // for running transactions when it is to stop
constexpr std::int64_t kSaveClock = 60;              // seconds
constexpr char kClockMark[] = "dlsend.clock";

}  // namespace

void SendLog(int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    LogFormatted(level, "DL Send", 2048, format, args);
    va_end(args);
}

Handover::Handover(const RelaySettings& settings, DeliveryChannel* channel,
                   const std::atomic<bool>* stop)
    : settings_(settings),
      channel_(channel),
      stop_(stop),
      waiting_time_(Now(), Uptime()),
      random_(std::random_device()())
{
    std::map<std::string, std::string> marks;
    if (ReadMQMarks(kClockMark, &marks) && !marks.empty())
        waiting_time_.Restore(marks.begin()->second);
}

Handover::~Handover() = default;

void Handover::Run(bool once)
{
    once_ = once;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);  // signals are the main thread's
    for (int i = 0; i < settings_.connections; ++i)
        threads_.emplace_back([this] { Work(); });
    if (!once)
        threads_.emplace_back([this] { Listen(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    Loop(once);
    Stop();
    GiveBack({std::make_move_iterator(jobs_.begin()), std::make_move_iterator(jobs_.end())},
             taken_);
    jobs_.clear();
    taken_.clear();
}

void Handover::Loop(bool once)
{
    bool filled = true;
    Clock::time_point next_fill = Clock::now();
    while (!stop_->load()) {
        {
            const Lock lock(mutex_);
            news_ = false;
        }
        LookForRoom();
        LookAtClock();
        if (Clock::now() >= next_fill) {
            filled = Fill();
            next_fill = Clock::now() + (filled ? std::chrono::milliseconds(0) : kTrouble);
        }
        FlushLog();
        Lock lock(mutex_);
        if (relay_down_ && WhileRelayIsDown(lock))
            continue;
        if (ending_ ||
            (once && (relay_down_ || no_room_ || !filled || (jobs_.empty() && taken_.empty()))))
            return;
        if (!news_)
            change_.wait_for(lock, kLook);
    }
}

// What is put into the queue is looked at when it comes.
void Handover::Listen()
{
    while (!abort_.load()) {
        if (!channel_->WaitForNews(kListen))
            continue;
        {
            const Lock lock(mutex_);
            news_ = true;
            change_.notify_all();
        }
        std::this_thread::sleep_for(kTogether);
    }
}

void Handover::LookForRoom()
{
    const bool room = channel_->HasRoom();
    const Lock lock(mutex_);
    if (no_room_ != room)
        return;
    no_room_ = !room;
    SendLog(1, room ? "There is room on the disk of the queue again"
                    : "The disk of the queue is full, nothing is handed over until there is room");
    change_.notify_all();
}

void Handover::LookAtClock()
{
    const std::int64_t uptime = Uptime();
    std::int64_t jump = 0;
    std::string text;
    {
        const Lock lock(mutex_);
        jump = waiting_time_.Tick(Now(), uptime);
        text = waiting_time_.Text();
    }
    if (jump != 0)
        SendLog(1, "The clock was set %s by %lld s, which counts for no message",
                jump > 0 ? "forward" : "back", static_cast<long long>(std::abs(jump)));
    if (jump == 0 && uptime < clock_saved_ + kSaveClock)
        return;
    clock_saved_ = uptime;
    (void)SetMQMark(kClockMark, text);  // the queue has said why not; the next one tells as much
}

bool Handover::IsExpired(std::int64_t closed) const
{
    return waiting_time_.Of(closed, Now()) >= settings_.give_up_after;
}

// Whether there is a reason to try the relay again; takes only what is to be given up. False when
// the queue cannot be read.
bool Handover::LookWhileRelayIsDown()
{
    std::int64_t closed = 0;
    const QueueAnswer due = channel_->AnythingDue(Now(), &closed);
    {
        const Lock lock(mutex_);
        due_ = due == QueueAnswer::kYes;
        if (!due_ || closed == 0 || !IsExpired(closed))
            return due != QueueAnswer::kFailed;
    }
    return TakeEntries(1) && LoadTaken();
}

// Reads entries as long as there is room for them. False when the queue cannot be read.
bool Handover::Fill()
{
    bool down = false;
    {
        const Lock lock(mutex_);
        if (ending_ || write_fails_ || no_room_)
            return true;
        down = relay_down_;
    }
    if (down)
        return LookWhileRelayIsDown();
    for (;;) {
        std::size_t room = 0;
        {
            const Lock lock(mutex_);
            if (ending_ || write_fails_ || no_room_ || relay_down_ || jobs_.size() >= kMostJobs)
                return true;
            if (taken_.empty())
                room = kMostTaken - jobs_.size();
            else if (!jobs_.empty() && recipients_ + taken_.front().recipients > kMostRecipients)
                return true;
        }
        if (room == 0 ? !LoadTaken() : !TakeEntries(room))
            return false;
        if (room > 0 && taken_.empty())
            return true;
    }
}

// Reads the first of those that are taken, which this thread alone changes. False when the queue
// cannot be read.
bool Handover::LoadTaken()
{
    if (taken_.empty())
        return true;
    if (!Load(taken_.front()))
        return false;
    const Lock lock(mutex_);
    taken_.pop_front();
    return true;
}

bool Handover::TakeEntries(std::size_t limit)
{
    std::vector<DueEntry> entries;
    const std::time_t now = Now();
    const QueueAnswer due = channel_->AnythingDue(now);
    if (due == QueueAnswer::kFailed ||
        (due == QueueAnswer::kYes && !channel_->Take(now, limit, &entries)))
        return false;
    const Lock lock(mutex_);
    taken_.insert(taken_.end(), entries.begin(), entries.end());
    return true;
}

// False when the queue cannot be read.
bool Handover::Load(const DueEntry& due)
{
    DeliveryRecord record;
    switch (channel_->Read(due.id, &record)) {
        case QueueAnswer::kYes:
            break;
        case QueueAnswer::kNo:
            Hold(due, "its envelope cannot be used");
            return true;
        case QueueAnswer::kFailed:
            return false;
    }
    auto job = std::make_unique<Job>(due, std::move(record));
    std::string cause;
    ForgetMachineFault();
    if (!job->message.Open(GetMQPathName(due.id, ".msg"), &cause)) {
        if (NotedMachineFault() != 0)
            return PutOff(due, job->record.tries, cause);
        Hold(due, "its message file cannot be read: " + cause);
        return true;
    }
    SendLog(6, "Handing message %08lX over to %zu recipients", due.id, job->order.size());
    const Lock lock(mutex_);
    recipients_ += job->record.envelope.Count();
    jobs_.push_back(std::move(job));
    change_.notify_all();
    return true;
}

// For a fault of the machine: the message is not to blame, and others may be readable.
bool Handover::PutOff(const DueEntry& due, int tries, const std::string& why)
{
    DeliveryStep step;
    step.id = due.id;
    step.end = DeliveryStep::End::kPutBack;
    {
        const Lock lock(mutex_);
        step.due = Now() + RetryDelay(settings_, tries, static_cast<std::uint32_t>(random_()));
    }
    SendLog(1, "Message %08lX cannot be read now, next try in %lld s: %s", due.id,
            static_cast<long long>(step.due - Now()), why.c_str());
    return channel_->Record({&step, 1});
}

void Handover::Hold(const DueEntry& due, const std::string& why)
{
    DeliveryStep step;
    step.id = due.id;
    step.end = DeliveryStep::End::kHold;
    if (channel_->Record({&step, 1}))
        SendLog(1, "Message %08lX is moved to channel dlhold: %s", due.id, why.c_str());
}

// No entry is kept: it would be blamed if the program died now. What has waited for too long is
// given up although no relay has refused it: true when something was.
bool Handover::WhileRelayIsDown(Lock& lock)
{
    std::vector<std::unique_ptr<Job>> idle;
    std::vector<Job*> expired;
    for (auto job = jobs_.begin(); job != jobs_.end();) {
        const auto here = job++;
        if ((*here)->in_flight > 0)
            continue;
        if (IsExpired((*here)->entry.closed)) {
            (*here)->in_flight = 1;
            (*here)->next = (*here)->order.size();
            (*here)->again.clear();
            expired.push_back(here->get());
        } else {
            recipients_ -= (*here)->record.envelope.Count();
            idle.push_back(std::move(*here));
            jobs_.erase(here);
        }
    }
    const std::deque<DueEntry> taken = std::exchange(taken_, {});
    const std::string problem = relay_problem_;
    lock.unlock();
    GiveBack(idle, taken);
    for (Job* job : expired) {
        DeliveryStep step;
        step.id = job->entry.id;
        step.problem = "the relay cannot be used: " + problem;
        Conclude(job, std::move(step), [] {});
    }
    lock.lock();
    return !expired.empty();
}

void Handover::Stop()
{
    {
        Lock lock(mutex_);
        ending_ = true;
        change_.notify_all();
        const auto idle = [this] {
            for (const auto& job : jobs_)
                if (job->in_flight > 0)
                    return false;
            return true;
        };
        if (!change_.wait_for(lock, kEnd, idle))
            SendLog(5, "The relay is slow, ending without its last answers");
    }
    abort_.store(true);
    change_.notify_all();
    for (std::thread& thread : threads_)
        thread.join();
    threads_.clear();
}

// Answers that could not be written get their last chance here.
void Handover::GiveBack(const std::vector<std::unique_ptr<Job>>& jobs,
                        const std::deque<DueEntry>& taken)
{
    std::vector<DeliveryStep> steps;
    for (const auto& job : jobs) {
        steps.emplace_back().id = job->entry.id;
        steps.back().answers = std::move(job->unwritten);
    }
    for (const DueEntry& due : taken)
        steps.emplace_back().id = due.id;
    for (DeliveryStep& step : steps)
        step.end = DeliveryStep::End::kGiveBack;
    if (steps.empty() || channel_->Record(steps))
        return;
    SendLog(1, "%zu messages could not be given back, the next start finds them", steps.size());
    for (const DeliveryStep& step : steps)
        if (const auto sent = std::count_if(
                step.answers.begin(), step.answers.end(),
                [](const auto& one) { return one.state == RecipientState::kDelivered; }))
            SendLog(1,
                    "What became of message %08lX could not be written down: %td recipients whom"
                    " the relay has taken it for will get it again",
                    step.id, sent);
}

}  // namespace dl
