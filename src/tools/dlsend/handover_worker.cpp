// The threads of a Handover: a connection each.

#include <algorithm>
#include <utility>

#include "platform/clock/clock.h"
#include "platform/log/log.h"
#include "platform/metrics/metrics.h"
#include "tools/dlsend/handover.h"

namespace dl
{
namespace
{

constexpr std::chrono::seconds kIdle{5};   // after which a connection is closed
constexpr std::chrono::seconds kRest{30};  // after a connection more was refused
constexpr std::chrono::seconds kShortRest{1};
constexpr std::chrono::milliseconds kFirstProbe{1000};
constexpr std::chrono::milliseconds kLastProbe{60'000};

}  // namespace

void Handover::Work()
{
    Worker worker(&abort_);
    Task task;
    for (;;) {
        {
            Lock lock(mutex_);
            CountConnection(&worker);
            while (!ending_ && !PickTask(worker, &task)) {
                if (!worker.session.IsOpen()) {
                    change_.wait_for(lock, std::chrono::seconds(1));
                } else if (change_.wait_for(lock, kIdle) == std::cv_status::timeout) {
                    worker.session.Quit();  // does not wait
                    CountConnection(&worker);
                }
            }
            if (ending_)
                break;
        }
        Perform(&worker, task);
    }
    worker.session.Quit();
}

void Handover::CountConnection(Worker* worker)
{
    if (worker->counted == worker->session.IsOpen())
        return;
    connected_ += worker->counted ? -1 : 1;
    worker->counted = !worker->counted;
}

// Of the entries with the fewest transactions under way the one whose last turn is longest ago.
bool Handover::PickTask(const Worker& worker, Task* task)
{
    if (write_fails_ || no_room_)
        return false;
    if (!worker.session.IsOpen() && Clock::now() < worker.rests)
        return false;
    if (relay_down_) {
        if (probing_ || !due_ || Clock::now() < next_probe_)
            return false;
        probing_ = true;
        *task = Task();
        return true;
    }
    Job* best = nullptr;
    for (const auto& job : jobs_) {
        if (job->AllAssigned() && (job->in_flight > 0 || !job->order.empty()))
            continue;
        if (!best || job->in_flight < best->in_flight ||
            (job->in_flight == best->in_flight && job->served < best->served))
            best = job.get();
    }
    if (!best)
        return false;
    task->job = best;
    task->recipients = best->NextTransaction(settings_.max_recipients);
    best->served = ++turn_;
    ++best->in_flight;
    return true;
}

void Handover::Perform(Worker* worker, const Task& task)
{
    if (!task.job) {
        if (Connect(worker)) {
            const Lock lock(mutex_);
            news_ = true;  // the entries that wait
            change_.notify_all();
        }
        return;
    }
    if (task.recipients.empty()) {  // all had their answers before; only the end was missing
        DeliveryStep step;
        step.id = task.job->entry.id;
        Conclude(task.job, std::move(step), [] {});
        return;
    }
    const std::optional<Results> results = Send(worker, task);
    if (results)
        Settle(task, *results);
    else
        ReturnTask(task);
}

bool Handover::Connect(Worker* worker)
{
    std::string problem;
    {
        const Lock lock(mutex_);
        ++connecting_;
    }
    const bool connected = worker->session.Open(settings_.relay, &problem);
    const Lock lock(mutex_);
    --connecting_;
    CountConnection(worker);
    if (!connected) {
        CannotConnect(worker, problem);
        return false;
    }
    probing_ = false;
    SetGauge(Metric::kRelayUp, 1);
    if (std::exchange(relay_down_, false))
        SendLog(1, "The relay %s can be used again", RelayName(settings_.relay).c_str());
    else
        SendLog(6, "Connected to the relay %s", RelayName(settings_.relay).c_str());
    change_.notify_all();
    return true;
}

// None when there is no connection.
std::optional<Handover::Results> Handover::Send(Worker* worker, const Task& task)
{
    smtp::Session& session = worker->session;
    smtp::Transaction transaction;
    transaction.sender = task.job->record.envelope.Sender();
    transaction.message = &task.job->message;
    transaction.recipients.reserve(task.recipients.size());
    for (const std::uint32_t recipient : task.recipients)
        transaction.recipients.push_back(task.job->record.envelope.Recipient(recipient));
    if (!session.IsOpen() && !Connect(worker))
        return std::nullopt;
    const bool used = session.Transactions() > 0;
    Results results = session.Send(transaction);
    // A relay may end a connection that it has had for long enough; that says nothing of this
    // message.
    if (!used || !results.lost || results.data_sent || abort_.load())
        return results;
    if (!Connect(worker))
        return std::nullopt;
    return session.Send(transaction);
}

// The relay is not gone when it only wants no further connection.
void Handover::CannotConnect(Worker* worker, const std::string& problem)
{
    const bool probe = std::exchange(probing_, false);
    const std::string name = RelayName(settings_.relay);
    change_.notify_all();
    if (connected_ > 0 || connecting_ > 0) {
        worker->rests = Clock::now() + (connected_ > 0 ? kRest : kShortRest);
        SendLog(6, "The relay %s takes no further connection: %s", name.c_str(), problem.c_str());
        return;
    }
    Count(Metric::kRelayConnectFailed);
    SetGauge(Metric::kRelayUp, 0);
    if (!relay_down_ && !abort_.load())
        SendLog(1, "The relay %s cannot be used: %s", name.c_str(), problem.c_str());
    if (!relay_down_)
        probe_pause_ = kFirstProbe;
    else if (probe)
        probe_pause_ = std::min(probe_pause_ * 2, kLastProbe);
    relay_down_ = true;
    relay_problem_ = problem;
    next_probe_ = Clock::now() + probe_pause_;
}

void Handover::ReturnTask(const Task& task)
{
    const Lock lock(mutex_);
    task.job->TakeBack(task.recipients);
    --task.job->in_flight;
    change_.notify_all();
}

}  // namespace dl
