#include "platform/queue/queue.h"

#include <cstdio>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/clock/clock.h"
#include "platform/config/config.h"
#include "platform/files/machine_fault.h"
#include "platform/log/log.h"
#include "platform/queue/delivery.h"
#include "platform/queue/queue_private.h"
#include "platform/queue/work.h"

namespace dl
{

namespace
{

constexpr int kDefaultMaxAttempts = 5;
constexpr char kModule[] = "DL Queue";

struct Opened {
    std::mutex mutex;
    std::shared_ptr<QueueBackend> own;        // what MQInit opened
    std::shared_ptr<QueueBackend> installed;  // not owned
    std::string module = kModule;             // written by MQInit only
};

Opened& TheQueue()
{
    static Opened opened;
    return opened;
}

bool OpenAt(const std::string& folder, const std::string& module, QueueUse use = QueueUse::kLong)
{
    MQEnd();
    int attempts = GetPrivateProfileInt("Queue", "MaxAttempts", kDefaultMaxAttempts, kMainConfig);
    if (attempts < 1)
        attempts = kDefaultMaxAttempts;
    std::shared_ptr<QueueBackend> queue = OpenSqliteQueue(folder, attempts, module, use);
    Opened& opened = TheQueue();
    const std::lock_guard<std::mutex> guard(opened.mutex);
    opened.own = std::move(queue);
    opened.module = module;
    return opened.own != nullptr;
}

long Next(MQContext* channel)
{
    if (!channel || !channel->reader)
        return kQueueFailed;
    const long id = channel->backend->Take(*channel->reader);
    channel->current.reset();
    if (id >= 0)
        channel->current = static_cast<std::uint32_t>(id);
    return id;
}

bool IsEntry(const MQContext* context)
{
    return context && !context->reader;
}

// A queue that fails is the machine's fault, never the message's.
bool Noted(bool done)
{
    if (!done)
        NoteMachineFault(kToldFault);
    return done;
}

// The context's current message, which it is no longer.
std::optional<WorkPart::Message> TakeCurrent(MQContext* channel)
{
    if (!channel || !channel->reader || !channel->current)
        return std::nullopt;
    return WorkPart::Message{*channel->reader, *std::exchange(channel->current, std::nullopt)};
}

}  // namespace

std::shared_ptr<QueueBackend> OpenedQueue()
{
    Opened& opened = TheQueue();
    const std::lock_guard<std::mutex> guard(opened.mutex);
    return opened.installed ? opened.installed : opened.own;
}

std::string QueuePath()
{
    return GetPrivateProfileString("Queue", "Path", kDefaultQueuePath, 4096, kMainConfig);
}

bool MQInit(const std::string& /*host*/, const std::string& module)
{
    return OpenAt(QueuePath(), module);
}

bool MQInitBriefly(const std::string& module)
{
    return OpenAt(QueuePath(), module, QueueUse::kBrief);
}

bool MQInitAt(const std::string& folder)
{
    return OpenAt(folder, kModule);
}

void MQEnd()
{
    Opened& opened = TheQueue();
    std::shared_ptr<QueueBackend> last;  // ends outside the lock
    const std::lock_guard<std::mutex> guard(opened.mutex);
    last = std::move(opened.own);
}

void SetQueueBackend(QueueBackend* backend)
{
    Opened& opened = TheQueue();
    const std::lock_guard<std::mutex> guard(opened.mutex);
    opened.installed = std::shared_ptr<QueueBackend>(std::shared_ptr<void>(), backend);
}

QueueBackend* CurrentQueueBackend()
{
    return OpenedQueue().get();
}

MQContext* OpenMQChannel(const std::string& name)
{
    std::shared_ptr<QueueBackend> queue = OpenedQueue();
    if (!queue)
        return nullptr;
    const std::int64_t reader = queue->BeginReader(name, kLongestPostponement);
    if (reader < 0)
        return nullptr;
    auto* channel = new MQContext(std::move(queue));
    channel->reader = reader;
    return channel;
}

long GetFirstMessage(MQContext* channel, bool /*peek*/)
{
    if (channel && channel->reader)
        channel->backend->BeginPass(*channel->reader);
    return Next(channel);
}

long GetNextMessage(MQContext* channel, bool /*peek*/)
{
    return Next(channel);
}

bool WaitForMQNews(std::chrono::milliseconds longest)
{
    const std::shared_ptr<QueueBackend> queue = OpenedQueue();
    if (queue && !ClockIsReplaced())
        return queue->Deliveries()->WaitForNews(longest);
    SleepFor(longest);
    return false;
}

EnvelopeResult GetMQEnvelope(unsigned long id)
{
    const std::shared_ptr<QueueBackend> queue = OpenedQueue();
    std::string encoded;
    if (!queue)
        return {nullptr, true};
    switch (queue->ReadEnvelope(static_cast<std::uint32_t>(id), &encoded)) {
        case QueueBackend::Found::kNo:
            return {nullptr, false};
        case QueueBackend::Found::kFailed:
            return {nullptr, true};
        case QueueBackend::Found::kYes:
            break;
    }
    EnvelopeResult result{DecodeEnvelope(encoded), false};
    if (!result.envelope) {
        // Not "there is none": the message must not be taken for one that nobody wants.
        char line[64];
        std::snprintf(line, sizeof line, "The envelope of message %08lX is damaged", id);
        LogMessage(1, TheQueue().module.c_str(), line);
        result.failed = result.damaged = true;
    }
    return result;
}

void FreeMQEnvelope(std::unique_ptr<stEnvelope> envelope)
{
    envelope.reset();
}

bool RemoveMQChannel(MQContext* channel)
{
    const std::optional<WorkPart::Message> message = TakeCurrent(channel);
    if (!message)
        return false;
    if (MQWork* work = MQWork::Current()) {
        work->Noting(channel->backend).removed.push_back(*message);
        return true;
    }
    return channel->backend->Remove(message->reader, message->id);
}

bool IsSuspectMessage(MQContext* channel)
{
    return channel && channel->reader && channel->current &&
           channel->backend->IsSuspect(*channel->reader, *channel->current);
}

bool PostponeMQMessage(MQContext* channel, std::int64_t due, const std::string& problem)
{
    const std::optional<WorkPart::Message> message = TakeCurrent(channel);
    if (!message)
        return false;
    WorkPart alone;
    MQWork* work = MQWork::Current();
    (work ? work->Noting(channel->backend) : alone).postponed.push_back({*message, due, problem});
    return work || channel->backend->Commit({&alone});
}

bool BlameMQMessage(MQContext* channel, std::int64_t due)
{
    const std::optional<WorkPart::Message> message = TakeCurrent(channel);
    return message && channel->backend->Blame(message->reader, message->id, due);
}

bool CloseMQChannel(MQContext* channel)
{
    const std::unique_ptr<MQContext> owned(channel);
    return channel && channel->reader && channel->backend->EndReader(*channel->reader);
}

std::string GetMQPathName(const MQContext* context, const char* extension)
{
    if (!context || (context->reader && !context->current))
        return "";
    return context->backend->PathName(context->reader ? *context->current : context->entry.id,
                                      extension);
}

std::string GetMQPathName(unsigned long id, const char* extension)
{
    const std::shared_ptr<QueueBackend> queue = OpenedQueue();
    return queue ? queue->PathName(static_cast<std::uint32_t>(id), extension) : "";
}

unsigned long GetMQId(const MQContext* context)
{
    if (!context)
        return 0;
    return context->reader ? context->current.value_or(0) : context->entry.id;
}

bool HasMQRoomFor(std::int64_t bytes)
{
    const std::shared_ptr<QueueBackend> queue = OpenedQueue();
    return !queue || queue->HasRoomFor(bytes);
}

void MQNeedsRoomAt(const std::string& folder)
{
    if (const std::shared_ptr<QueueBackend> queue = OpenedQueue())
        queue->NeedRoomAt(folder);
}

MQContext* CreateMQEntry()
{
    std::shared_ptr<QueueBackend> queue = OpenedQueue();
    const std::optional<std::uint32_t> id = queue ? queue->Reserve() : std::nullopt;
    if (!id) {
        NoteMachineFault(kToldFault);
        return nullptr;
    }
    auto* entry = new MQContext(std::move(queue));
    entry->entry.id = *id;
    return entry;
}

bool InsertMQChannel(MQContext* entry, const std::string& channel, int priority)
{
    return IsEntry(entry) && !channel.empty() &&
           Noted(entry->backend->AddChannel(&entry->entry, channel, priority));
}

bool PutMQEnvelope(MQContext* entry, stEnvelope* envelope)
{
    return IsEntry(entry) && envelope &&
           Noted(entry->backend->StoreEnvelope(&entry->entry, *envelope));
}

bool CloseMQEntry(MQContext* entry)
{
    if (!IsEntry(entry))
        return false;
    const std::unique_ptr<MQContext> owned(entry);
    if (MQWork* work = MQWork::Current())
        return work->NoteEntry(entry->backend, std::move(entry->entry));
    return Noted(entry->backend->Publish(entry->entry));
}

std::vector<bool> CloseMQEntries(const std::vector<MQContext*>& entries)
{
    std::vector<bool> results;
    std::vector<std::unique_ptr<MQContext>> owned;
    std::vector<const PendingEntry*> group;
    QueueBackend* backend = nullptr;
    const auto publish = [&] {
        if (group.empty() || !backend)
            return;
        const std::vector<bool> done = backend->PublishMany(group);
        results.insert(results.end(), done.begin(), done.end());
        group.clear();
    };
    for (MQContext* entry : entries) {
        // What cannot be in a group ends the one before it, so that the results keep their order.
        if (!IsEntry(entry) || entry->backend.get() != backend)
            publish();
        if (!IsEntry(entry)) {
            results.push_back(false);
            continue;
        }
        owned.emplace_back(entry);
        backend = entry->backend.get();
        group.push_back(&entry->entry);
    }
    publish();
    return results;
}

std::vector<bool> QueueBackend::PublishMany(const std::vector<const PendingEntry*>& entries)
{
    std::vector<bool> results;
    results.reserve(entries.size());
    for (const PendingEntry* entry : entries)
        results.push_back(Publish(*entry));
    return results;
}

void DiscardMQEntry(MQContext* entry)
{
    if (!IsEntry(entry))
        return;
    const std::unique_ptr<MQContext> owned(entry);
    entry->backend->Abandon(entry->entry.id);
}

void LeaveMQEntry(MQContext* entry)
{
    if (IsEntry(entry))
        delete entry;  // the claim stays with the process, so that nobody takes the files from
                       // under a late writer
}

void FillChannel(PendingEntry* entry, const std::string& channel, int priority)
{
    for (auto& [name, old_priority] : entry->channels) {
        if (name == channel) {
            old_priority = priority;
            return;
        }
    }
    entry->channels.emplace_back(channel, priority);
}

void FillEnvelope(PendingEntry* entry, const stEnvelope& envelope)
{
    entry->envelope = EncodeEnvelope(envelope);
    entry->sender = envelope.SenderAddress();
    entry->recipients = static_cast<std::uint32_t>(envelope.recipients.count);
}

NewMQEntry::~NewMQEntry()
{
    Discard();
}

bool NewMQEntry::Close()
{
    return CloseMQEntry(std::exchange(entry_, nullptr));
}

void NewMQEntry::Discard()
{
    DiscardMQEntry(std::exchange(entry_, nullptr));
}

void NewMQEntry::Leave()
{
    LeaveMQEntry(std::exchange(entry_, nullptr));
}

Submission Submit(NewMQEntry entry, const std::string& channel, int priority, stEnvelope* envelope)
{
    if (!InsertMQChannel(entry.get(), channel, priority))
        return Submission::kInsertFailed;
    if (!PutMQEnvelope(entry.get(), envelope))
        return Submission::kPutFailed;
    return entry.Close() ? Submission::kDone : Submission::kCloseFailed;
}

bool ListMQ(const std::string& channel, std::size_t limit, std::vector<QueueItem>* items)
{
    const std::shared_ptr<QueueBackend> queue = OpenedQueue();
    return queue && queue->List(channel, limit, items);
}

bool FindMQ(unsigned long id, std::vector<QueueItem>* items)
{
    const std::shared_ptr<QueueBackend> queue = OpenedQueue();
    return queue && queue->Find(static_cast<std::uint32_t>(id), items);
}

QueueChange RemoveMQItem(unsigned long id)
{
    const std::shared_ptr<QueueBackend> queue = OpenedQueue();
    return queue ? queue->Drop(static_cast<std::uint32_t>(id)) : QueueChange::kFailed;
}

QueueChange MoveMQItem(unsigned long id, const std::string& from, const std::string& to)
{
    const std::shared_ptr<QueueBackend> queue = OpenedQueue();
    return queue && !to.empty() ? queue->Move(static_cast<std::uint32_t>(id), from, to)
                                : QueueChange::kFailed;
}

QueueChange ReleaseMQItem(unsigned long id)
{
    const std::shared_ptr<QueueBackend> queue = OpenedQueue();
    return queue ? queue->Move(static_cast<std::uint32_t>(id), kHoldChannel, "")
                 : QueueChange::kFailed;
}

}  // namespace dl
