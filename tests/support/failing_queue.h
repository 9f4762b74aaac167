// A queue whose n-th call of a kind fails: how the "the queue failed" paths are tested on the real
// one.
//
// Opens an embedded queue in a folder and installs itself for as long as it lives. A call that is
// told to fail does what a failing queue does: nothing, but that a failed close also removes the
// entry.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/queue/queue_backend.h"
#include "tests/support/faults.h"

namespace dl::testing
{

enum class QueueCall {
    kCreate,
    kInsert,
    kEnvelope,
    kClose,
    kPrepare,
    kCommit,
    kTake,
    kRemove,
    kReadEnvelope,
};

class FailingQueue : public QueueBackend, public Faults<QueueCall>
{
 public:
    explicit FailingQueue(const std::string& folder) : real_(OpenSqliteQueue(folder, 5))
    {
        if (!real_)
            throw std::runtime_error("no queue in " + folder);
        SetQueueBackend(this);
    }
    ~FailingQueue() override { SetQueueBackend(nullptr); }

    // The calls so far that change the queue, as "create insert(dlout,255) envelope close"; also
    // "discard", "remove" and, of a work, "commit(...)" with what its parts publish and remove. A
    // failed one stands there too.
    [[nodiscard]] std::string Calls() const { return calls_; }
    void ClearCalls() { calls_.clear(); }

    DeliveryBackend* Deliveries() override { return real_->Deliveries(); }

    std::optional<std::uint32_t> Reserve() override
    {
        return Fails(QueueCall::kCreate, "create") ? std::nullopt : real_->Reserve();
    }
    bool AddChannel(PendingEntry* entry, const std::string& channel, int priority) override
    {
        const std::string text = "insert(" + channel + "," + std::to_string(priority) + ")";
        return !Fails(QueueCall::kInsert, text) && real_->AddChannel(entry, channel, priority);
    }
    bool StoreEnvelope(PendingEntry* entry, const stEnvelope& envelope) override
    {
        return !Fails(QueueCall::kEnvelope, "envelope") && real_->StoreEnvelope(entry, envelope);
    }
    bool Publish(const PendingEntry& entry) override
    {
        if (!Fails(QueueCall::kClose, "close"))
            return real_->Publish(entry);
        real_->Abandon(entry.id);
        return false;
    }
    void Abandon(std::uint32_t id) override
    {
        Note("discard");
        real_->Abandon(id);
    }
    bool Prepare(const std::vector<PendingEntry*>& entries) override
    {
        return !Fails(QueueCall::kPrepare, "") && real_->Prepare(entries);
    }
    bool Commit(const std::vector<const WorkPart*>& parts) override
    {
        std::string text;
        for (const WorkPart* part : parts) {
            text += (text.empty() ? "" : ", ") + std::to_string(part->published.size());
            text += part->removed.empty() ? "" : " remove";
            text += part->postponed.empty() ? "" : " postpone";
            for (const WorkPart::Mark& mark : part->marks)
                text += (mark.value ? " mark " : " unmark ") + mark.name;
        }
        return !Fails(QueueCall::kCommit, "commit(" + text + ")") && real_->Commit(parts);
    }
    bool ReadMarks(const std::string& prefix, std::map<std::string, std::string>* marks) override
    {
        return real_->ReadMarks(prefix, marks);
    }

    std::int64_t BeginReader(const std::string& channel, std::int64_t longest_pause) override
    {
        return real_->BeginReader(channel, longest_pause);
    }
    bool EndReader(std::int64_t reader) override { return real_->EndReader(reader); }
    void BeginPass(std::int64_t reader) override { real_->BeginPass(reader); }
    long Take(std::int64_t reader) override
    {
        return Fails(QueueCall::kTake, "") ? kQueueFailed : real_->Take(reader);
    }
    bool Remove(std::int64_t reader, std::uint32_t id) override
    {
        return !Fails(QueueCall::kRemove, "remove") && real_->Remove(reader, id);
    }
    bool IsSuspect(std::int64_t reader, std::uint32_t id) override
    {
        return real_->IsSuspect(reader, id);
    }
    bool Blame(std::int64_t reader, std::uint32_t id, std::int64_t due) override
    {
        Note("blame");
        return real_->Blame(reader, id, due);
    }
    bool HasRoomFor(std::int64_t bytes) override { return real_->HasRoomFor(bytes); }
    void NeedRoomAt(const std::string& folder) override { real_->NeedRoomAt(folder); }
    Found ReadEnvelope(std::uint32_t id, std::string* encoded) override
    {
        return Fails(QueueCall::kReadEnvelope, "") ? Found::kFailed
                                                   : real_->ReadEnvelope(id, encoded);
    }
    std::string PathName(std::uint32_t id, const char* extension) const override
    {
        return real_->PathName(id, extension);
    }

    bool List(const std::string& channel, std::size_t limit, std::vector<QueueItem>* items) override
    {
        return real_->List(channel, limit, items);
    }
    bool Find(std::uint32_t id, std::vector<QueueItem>* items) override
    {
        return real_->Find(id, items);
    }
    QueueChange Drop(std::uint32_t id) override { return real_->Drop(id); }
    QueueChange Move(std::uint32_t id, const std::string& from, const std::string& to) override
    {
        return real_->Move(id, from, to);
    }

 private:
    void Note(const std::string& text)
    {
        if (!text.empty())
            calls_ += (calls_.empty() ? "" : " ") + text;
    }
    bool Fails(QueueCall call, const std::string& text)
    {
        Note(text);
        return Faults::Fails(call);
    }

    std::unique_ptr<QueueBackend> real_;
    std::string calls_;
};

}  // namespace dl::testing
