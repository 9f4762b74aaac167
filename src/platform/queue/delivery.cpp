#include "platform/queue/delivery.h"

#include <cstdio>
#include <utility>

#include "platform/log/log.h"
#include "platform/queue/queue_private.h"

namespace dl
{

DeliveryChannel::DeliveryChannel(std::shared_ptr<QueueBackend> queue, std::int64_t reader)
    : queue_(std::move(queue)), reader_(reader)
{
}

std::unique_ptr<DeliveryChannel> DeliveryChannel::Open(const std::string& channel,
                                                       std::int64_t longest_pause)
{
    std::shared_ptr<QueueBackend> queue = OpenedQueue();
    const std::int64_t reader = queue ? queue->BeginReader(channel, longest_pause) : -1;
    if (reader < 0)
        return nullptr;
    return std::unique_ptr<DeliveryChannel>(new DeliveryChannel(std::move(queue), reader));
}

DeliveryChannel::~DeliveryChannel()
{
    (void)queue_->EndReader(reader_);  // it has logged; a later reader frees what this one had
}

QueueAnswer DeliveryChannel::AnythingDue(std::int64_t now, std::int64_t* closed)
{
    return queue_->Deliveries()->AnythingDue(reader_, now, closed);
}

bool DeliveryChannel::Take(std::int64_t now, std::size_t limit, std::vector<DueEntry>* entries)
{
    return queue_->Deliveries()->TakeDue(reader_, now, limit, entries);
}

QueueAnswer DeliveryChannel::Read(unsigned long id, DeliveryRecord* record)
{
    std::string encoded;
    const QueueAnswer found = queue_->Deliveries()->ReadDelivery(id, &encoded, record);
    if (found != QueueAnswer::kYes)
        return found;
    std::optional<CompactEnvelope> envelope = DecodeCompact(std::move(encoded));
    if (envelope && (record->states.empty() || record->states.size() == envelope->Count())) {
        record->envelope = *std::move(envelope);
        return QueueAnswer::kYes;
    }
    char line[64];
    std::snprintf(line, sizeof line, "The envelope of message %08lX is damaged", id);
    LogMessage(1, "DL Queue", line);
    return QueueAnswer::kNo;
}

bool DeliveryChannel::Record(std::span<const DeliveryStep> steps)
{
    return queue_->Deliveries()->Record(reader_, steps, nullptr);
}

bool DeliveryChannel::RecordWith(const DeliveryStep& step, NewMQEntry entry, const std::string& to,
                                 stEnvelope* envelope)
{
    if (!InsertMQChannel(entry.get(), to, 0) || !PutMQEnvelope(entry.get(), envelope))
        return false;
    const std::unique_ptr<MQContext> owned(entry.Release());
    return queue_->Deliveries()->Record(reader_, {&step, 1}, &owned->entry);
}

bool DeliveryChannel::ReadAnswers(unsigned long id, std::uint32_t from, std::size_t limit,
                                  std::vector<RecipientAnswer>* answers)
{
    return queue_->Deliveries()->ReadAnswers(id, from, limit, answers);
}

QueueAnswer DeliveryChannel::Waiting(std::int64_t* next_due)
{
    return queue_->Deliveries()->Waiting(reader_, next_due);
}

bool DeliveryChannel::HasRoom() const
{
    return queue_->Deliveries()->HasRoom();
}

bool DeliveryChannel::WaitForNews(std::chrono::milliseconds longest)
{
    return queue_->Deliveries()->WaitForNews(longest);
}

}  // namespace dl
