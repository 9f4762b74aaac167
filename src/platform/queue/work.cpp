#include "platform/queue/work.h"

#include <utility>

#include "platform/queue/queue_private.h"

namespace dl
{
namespace
{

thread_local MQWork* current_work = nullptr;

}  // namespace

struct MQWork::Part : WorkPart {
    bool prepared = false;
};

MQWork::MQWork() : parts_(1)
{
    current_work = this;
}

MQWork::~MQWork()
{
    current_work = nullptr;
    for (Part& part : parts_)
        Discard(&part);
}

MQWork* MQWork::Current()
{
    return current_work;
}

void MQWork::Discard(Part* part)
{
    for (const PendingEntry& entry : part->published)
        backend_->Abandon(entry.id);
}

void MQWork::EndPart()
{
    parts_.emplace_back();
}

void MQWork::DropPart()
{
    Discard(&parts_.back());
    parts_.back() = Part();
}

std::size_t MQWork::Parts() const
{
    return parts_.size() - 1;
}

bool MQWork::Prepare(std::size_t parts)
{
    std::vector<PendingEntry*> entries;
    for (std::size_t i = 0; i < parts; ++i)
        if (!parts_[i].prepared)
            for (PendingEntry& entry : parts_[i].published)
                entries.push_back(&entry);
    if (!entries.empty() && !backend_->Prepare(entries))
        return false;
    for (std::size_t i = 0; i < parts; ++i)
        parts_[i].prepared = true;
    return true;
}

bool MQWork::Commit(std::size_t parts)
{
    if (parts == 0)
        return true;
    if (!Prepare(parts))
        return false;
    std::vector<const WorkPart*> together;
    for (std::size_t i = 0; i < parts; ++i)
        together.push_back(&parts_[i]);
    if (backend_ && !backend_->Commit(together))
        return false;
    parts_.erase(parts_.begin(), parts_.begin() + static_cast<std::ptrdiff_t>(parts));
    return true;
}

WorkPart& MQWork::Noting(std::shared_ptr<QueueBackend> backend)
{
    if (!backend_)
        backend_ = std::move(backend);
    return parts_.back();
}

bool MQWork::NoteEntry(std::shared_ptr<QueueBackend> backend, PendingEntry entry)
{
    WorkPart& part = Noting(std::move(backend));
    if (entry.channels.empty()) {
        backend_->Abandon(entry.id);
        return false;
    }
    part.published.push_back(std::move(entry));
    return true;
}

bool SetMQMark(const std::string& name, const std::optional<std::string>& value)
{
    std::shared_ptr<QueueBackend> queue = OpenedQueue();
    if (!queue)
        return false;
    if (MQWork* work = MQWork::Current()) {
        work->Noting(std::move(queue)).marks.push_back({name, value});
        return true;
    }
    WorkPart alone;
    alone.marks.push_back({name, value});
    return queue->Commit({&alone});
}

bool ReadMQMarks(const std::string& prefix, std::map<std::string, std::string>* marks)
{
    const std::shared_ptr<QueueBackend> queue = OpenedQueue();
    return queue && queue->ReadMarks(prefix, marks);
}

}  // namespace dl
