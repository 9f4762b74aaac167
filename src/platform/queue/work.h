// One message, one commit: what handling messages makes becomes visible together with their
// removal.
//
// While an MQWork lives, CloseMQEntry, RemoveMQChannel, PostponeMQMessage and SetMQMark of its
// thread only note what is to become so: nothing is visible, and nothing gone, before Commit.
// EndPart ends what stands or falls together, as a rule one message; several parts share the waits
// for the disk. What is not committed when the work ends is discarded, and its messages stay with
// their reader. A CloseMQEntry that the work has noted ends the caller's ownership as ever, and
// succeeds. One work at a time in a thread; contexts of one queue. The queue logs why a step failed
// in one level 1 line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/queue/queue.h"

namespace dl
{

class QueueBackend;
struct PendingEntry;
struct WorkPart;

class MQWork
{
 public:
    MQWork();
    ~MQWork();
    MQWork(const MQWork&) = delete;
    MQWork& operator=(const MQWork&) = delete;
    // The work of this thread; null when there is none.
    [[nodiscard]] static MQWork* Current();

    // Ends the part that was begun by the end of the one before.
    void EndPart();
    // Takes back what was noted since then.
    void DropPart();
    [[nodiscard]] std::size_t Parts() const;  // that have ended

    // Puts the messages of the first `parts` parts on disk; Commit does it when it was not done.
    [[nodiscard]] bool Prepare(std::size_t parts);
    // Commits the first `parts` parts, which leave the work. False: nothing has changed, and they
    // are still here.
    [[nodiscard]] bool Commit(std::size_t parts);

    // For the queue's own functions: what they note.
    [[nodiscard]] bool NoteEntry(std::shared_ptr<QueueBackend> backend, PendingEntry entry);
    WorkPart& Noting(std::shared_ptr<QueueBackend> backend);

 private:
    struct Part;
    void Discard(Part* part);

    std::deque<Part> parts_;  // the last one has not ended
    std::shared_ptr<QueueBackend> backend_;
};

// Marks: short facts by name that are set in the same transaction as what they tell of.
// None of `value`: the mark goes. Without a work it is durable on return; false when that failed.
[[nodiscard]] bool SetMQMark(const std::string& name, const std::optional<std::string>& value);
// Those whose names begin with `prefix`; committed ones only. False when the queue cannot be read.
[[nodiscard]] bool ReadMQMarks(const std::string& prefix,
                               std::map<std::string, std::string>* marks);

}  // namespace dl
