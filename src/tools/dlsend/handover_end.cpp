// What becomes of an entry after a transaction and at its end.

#include <algorithm>
#include <map>
#include <utility>

#include "platform/clock/clock.h"
#include "platform/log/log.h"
#include "platform/metrics/metrics.h"
#include "tools/dlsend/handover.h"

namespace dl
{
namespace
{

using End = DeliveryStep::End;

constexpr std::size_t kAnswersAtOnce = 1000;
constexpr std::chrono::milliseconds kFirstPause{500};
constexpr std::chrono::milliseconds kLastPause{60'000};
constexpr int kTriesWhenEnding = 3;

// What is to be written of a transaction with these recipients; `again` gets those who are to be
// tried in another one at once.
DeliveryStep Digest(const Job& job, const std::vector<std::uint32_t>& recipients,
                    const smtp::TransactionResult& result, std::vector<std::uint32_t>* again)
{
    DeliveryStep step;
    step.id = job.entry.id;
    std::string common;  // what all who are to be tried later were told
    bool differs = false;
    for (const smtp::RecipientResult& one : result.recipients) {
        if (one.outcome != smtp::Outcome::kLater && one.outcome != smtp::Outcome::kUnknown)
            continue;
        differs = differs || (!common.empty() && common != one.Line());
        common = one.Line();
    }
    if (!common.empty() && !differs)
        step.problem = common;
    for (std::size_t i = 0; i < recipients.size(); ++i) {
        const smtp::RecipientResult& one = result.recipients[i];
        switch (one.outcome) {
            case smtp::Outcome::kAccepted:
                step.answers.push_back({recipients[i], RecipientState::kDelivered, ""});
                break;
            case smtp::Outcome::kRefused:
                step.answers.push_back({recipients[i], RecipientState::kRefused, one.Line()});
                break;
            case smtp::Outcome::kNextTime:
                again->push_back(recipients[i]);
                break;
            case smtp::Outcome::kLater:
            case smtp::Outcome::kUnknown:
                if (differs)
                    step.answers.push_back({recipients[i], RecipientState::kWaiting, one.Line()});
                break;
        }
    }
    return step;
}

void LogResults(const Job& job, const std::vector<std::uint32_t>& recipients,
                const smtp::TransactionResult& result)
{
    const unsigned long id = job.entry.id;
    for (std::size_t i = 0; i < recipients.size(); ++i) {
        const smtp::RecipientResult& one = result.recipients[i];
        const std::string address(job.record.envelope.Recipient(recipients[i]));
        switch (one.outcome) {
            case smtp::Outcome::kAccepted:
                Count(Metric::kRelayDelivered);
                SendLog(3, "Relayed %08lX to <%s>: %s", id, address.c_str(), one.Line().c_str());
                break;
            case smtp::Outcome::kRefused:
                Count(Metric::kRelayRefused);
                SendLog(3, "Refused %08lX to <%s>: %s", id, address.c_str(), one.Line().c_str());
                break;
            case smtp::Outcome::kLater:
            case smtp::Outcome::kNextTime:
                Count(Metric::kRelayLater, one.outcome == smtp::Outcome::kLater ? 1 : 0);
                SendLog(5, "Not yet %08lX to <%s>: %s", id, address.c_str(), one.Line().c_str());
                break;
            case smtp::Outcome::kUnknown:
                Count(Metric::kRelayUnknown);
                SendLog(3, "No answer for %08lX to <%s>, who may get it twice: %s", id,
                        address.c_str(), one.Line().c_str());
                break;
        }
    }
}

bool WantsReport(const Job& job)
{
    const std::string sender(job.record.envelope.Sender());
    if (!CanBeTold(sender)) {
        SendLog(5, "Nobody is told of %08lX: its sender is %s", job.entry.id, sender.c_str());
        return false;
    }
    if (!CarriesReport(GetMQPathName(job.entry.id, ".msg")))
        return true;
    SendLog(1, "Nobody is told of %08lX from <%s>: it carries a delivery report", job.entry.id,
            sender.c_str());
    return false;
}

}  // namespace

// Writes down what a transaction brought. Whoever finds that it was the entry's last one ends the
// entry.
void Handover::Settle(const Task& task, const Results& results)
{
    Job* job = task.job;
    std::vector<std::uint32_t> again;
    DeliveryStep step = Digest(*job, task.recipients, results, &again);
    const auto log = [&] { LogResults(*job, task.recipients, results); };
    bool last = false;
    {
        const Lock lock(mutex_);
        job->Apply(step.answers);
        if (!again.empty()) {
            job->TakeBack(again);
            job->limit = std::max<std::size_t>(results.accepted, 1);
        }
        last = job->in_flight == 1 && job->AllAssigned();
    }
    if (last) {
        Conclude(job, std::move(step), log);
        return;
    }
    const bool written =
        (step.answers.empty() && !step.problem) || RecordSurely(*job, step, false, false);
    log();
    {
        const Lock lock(mutex_);
        if (!written)
            job->KeepUnwritten(step.answers);
        if (job->in_flight > 1 || !job->AllAssigned() || !written) {
            --job->in_flight;
            change_.notify_all();
            return;
        }
    }
    step.answers.clear();  // they are written, and the others have ended meanwhile
    Conclude(job, std::move(step), [] {});
}

// All recipients had their turn, and this thread alone has the entry.
void Handover::Conclude(Job* job, DeliveryStep step, const std::function<void()>& log)
{
    const std::size_t waiting = job->Count(RecipientState::kWaiting);
    bool expired = false;
    {
        const Lock lock(mutex_);
        expired = IsExpired(job->entry.closed);
    }
    step.answers.insert(step.answers.end(), job->unwritten.begin(), job->unwritten.end());
    job->unwritten.clear();
    bool ended = false;
    if (waiting == 0 || expired) {
        ended = Finish(*job, step, expired, log);
    } else if (abort_.load()) {
        log();  // it was not the relay's fault, so it costs no try
    } else {
        const Lock lock(mutex_);
        step.end = End::kPutBack;
        step.due =
            Now() + RetryDelay(settings_, job->record.tries, static_cast<std::uint32_t>(random_()));
    }
    if (step.end == End::kPutBack) {
        ended = RecordSurely(*job, step, false, false);
        log();
        if (ended)
            SendLog(5, "Message %08lX waits for %zu recipients, next try in %lld s", job->entry.id,
                    waiting, static_cast<long long>(step.due - Now()));
    }
    if (ended) {
        Forget(job);
        return;
    }
    const Lock lock(mutex_);  // the end of Run gives it back
    job->KeepUnwritten(step.answers);
    --job->in_flight;
    change_.notify_all();
}

bool Handover::Finish(const Job& job, const DeliveryStep& last, bool given_up,
                      const std::function<void()>& log)
{
    DeliveryStep step = last;
    step.end = End::kFinish;
    const std::size_t waiting = job.Count(RecipientState::kWaiting);
    const std::size_t refused = job.Count(RecipientState::kRefused);
    const bool report = refused + waiting > 0 && WantsReport(job);
    const bool done = RecordSurely(job, step, report, given_up);
    log();
    if (!done)
        return false;
    Count(Metric::kRelayGivenUp, waiting);
    Count(Metric::kRelayReports, report ? 1 : 0);
    if (waiting > 0)
        SendLog(3, "Gave up %08lX for %zu recipients after %lld hours: %s", job.entry.id, waiting,
                static_cast<long long>((Now() - job.entry.closed) / 3600),
                (step.problem ? *step.problem : job.record.problem).c_str());
    SendLog(5, "Message %08lX is done: %zu relayed, %zu refused, %zu given up%s", job.entry.id,
            job.Count(RecipientState::kDelivered), refused, waiting,
            report ? ", its sender is told" : "");
    return true;
}

// Tries until it is written, with growing pauses, and lets nothing more be sent meanwhile: what the
// relay has taken would be sent again. False only when the program is to end before it worked.
bool Handover::RecordSurely(const Job& job, const DeliveryStep& step, bool with_report,
                            bool given_up)
{
    std::chrono::milliseconds pause = kFirstPause;
    for (int tries = 1;; ++tries) {
        const bool done =
            with_report ? RecordReport(job, step, given_up) : channel_->Record({&step, 1});
        Lock lock(mutex_);
        if (done) {
            if (std::exchange(write_fails_, false)) {
                SendLog(1, "The queue can be written again");
                change_.notify_all();
            }
            return true;
        }
        write_fails_ = true;
        ending_ = ending_ || (once_ && tries >= kTriesWhenEnding);
        const auto over = [this, tries] { return ending_ && tries >= kTriesWhenEnding; };
        if (over()) {
            change_.notify_all();
            return false;
        }
        change_.wait_for(lock, pause, over);
        pause = std::min(pause * 2, kLastPause);
    }
}

bool Handover::RecordReport(const Job& job, const DeliveryStep& step, bool given_up)
{
    ReportFacts facts;
    facts.id = job.entry.id;
    facts.sender = job.record.envelope.Sender();
    if (facts.sender.starts_with('<'))
        facts.sender = facts.sender.substr(1, facts.sender.size() - 2);
    facts.arrived = job.entry.closed;
    facts.message_path = GetMQPathName(job.entry.id, ".msg");
    facts.host_name = settings_.host_name;
    facts.relay_host = settings_.relay.socket.empty() ? settings_.relay.host : "";
    const auto failed = [&](const std::function<bool(const FailedRecipient&)>& visit) {
        return EachFailedOf(job, step, given_up, visit);
    };
    NewMQEntry report;
    stEnvelope envelope;
    if (!report)
        return false;
    if (!WriteReport(report.get(), facts, failed) ||
        !AddressReport(&envelope, facts.sender, kInputChannel)) {
        SendLog(1, "The report about message %08lX cannot be written", job.entry.id);
        return false;
    }
    return channel_->RecordWith(step, std::move(report), kInputChannel, &envelope);
}

// The answers of this step are not in the queue yet, those of earlier ones are.
bool Handover::EachFailedOf(const Job& job, const DeliveryStep& step, bool given_up,
                            const std::function<bool(const FailedRecipient&)>& visit) const
{
    std::map<std::uint32_t, std::string_view> fresh;
    for (const RecipientAnswer& answer : step.answers)
        if (!answer.text.empty())
            fresh[answer.recipient] = answer.text;
    const std::string& problem = step.problem ? *step.problem : job.record.problem;
    std::vector<RecipientAnswer> kept;
    std::size_t at = 0;
    bool more = true;
    for (std::uint32_t i = 0; i < job.record.envelope.Count(); ++i) {
        const RecipientState state = job.State(i);
        if (state == RecipientState::kDelivered || (state == RecipientState::kWaiting && !given_up))
            continue;
        while (at < kept.size() && kept[at].recipient < i)
            ++at;
        if (at == kept.size() && more) {
            kept.clear();
            at = 0;
            if (!channel_->ReadAnswers(job.entry.id, i, kAnswersAtOnce, &kept))
                return false;
            more = kept.size() == kAnswersAtOnce;
        }
        FailedRecipient one{job.record.envelope.Recipient(i), problem,
                            state == RecipientState::kWaiting};
        if (const auto place = fresh.find(i); place != fresh.end())
            one.answer = place->second;
        else if (at < kept.size() && kept[at].recipient == i)
            one.answer = kept[at].text;
        if (!visit(one))
            return false;
    }
    return true;
}

void Handover::Forget(Job* job)
{
    const Lock lock(mutex_);
    recipients_ -= job->record.envelope.Count();
    jobs_.remove_if([job](const std::unique_ptr<Job>& one) { return one.get() == job; });
    news_ = true;  // there is room for another
    change_.notify_all();
}

}  // namespace dl
