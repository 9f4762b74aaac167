// What the queue's front stands on: one small interface, so that hosts which share a queue can put
// a client/server database under it. OpenSqliteQueue gives the embedded one. All operations may be
// called from several threads of the process that opened it; each is durable as queue.h says.
// False, kFailed and a negative number mean that the index or the disk failed; the back end has
// then logged one level 1 line with the cause.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/queue/queue.h"

namespace dl
{

struct PendingEntry {
    std::uint32_t id = 0;
    std::vector<std::pair<std::string, int>> channels;  // name and priority, each name once
    std::string envelope;                               // encoded; empty when none was put
    std::string sender;
    std::uint32_t recipients = 0;
    std::int64_t bytes = -1;  // of the message; -1 before Prepare
};

// One part of a work: what becomes so together or not at all.
struct WorkPart {
    struct Message {
        std::int64_t reader = 0;
        std::uint32_t id = 0;
    };
    struct Postponement {
        Message message;
        std::int64_t due = 0;  // seconds since 1970-01-01 UTC
        std::string problem;
    };
    struct Mark {
        std::string name;
        std::optional<std::string> value;  // none: the mark goes
    };
    std::vector<PendingEntry> published;
    std::vector<Message> removed;
    std::vector<Postponement> postponed;
    std::vector<Mark> marks;
};

class DeliveryBackend;

class QueueBackend
{
 public:
    virtual ~QueueBackend() = default;

    // The handing over of entries in parts, on the same entries and readers.
    virtual DeliveryBackend* Deliveries() = 0;

    // Writing. Reserve gives a new identifier, its empty ".msg" file made and claimed for this
    // process; none when that failed. AddChannel and StoreEnvelope are the steps of a submission
    // that may fail by themselves: the embedded queue only fills `entry` (FillChannel, FillEnvelope
    // below), another may write through.
    virtual std::optional<std::uint32_t> Reserve() = 0;
    virtual bool AddChannel(PendingEntry* entry, const std::string& channel, int priority) = 0;
    virtual bool StoreEnvelope(PendingEntry* entry, const stEnvelope& envelope) = 0;
    // Syncs the message file and makes the entry visible. The claim ends and, when this fails, its
    // files are removed. An entry that is in no channel is dropped: false.
    virtual bool Publish(const PendingEntry& entry) = 0;
    // Publishes each, with one wait for the disk where that can be had; one result for each. This
    // one waits for each.
    virtual std::vector<bool> PublishMany(const std::vector<const PendingEntry*>& entries);
    // Removes the files of a reserved entry and ends the claim.
    virtual void Abandon(std::uint32_t id) = 0;

    // Puts the messages of the entries on disk, with the waits of one, and fills `bytes`.
    virtual bool Prepare(const std::vector<PendingEntry*>& entries) = 0;
    // One durable transaction of all parts, whose entries are prepared. The claims end. When this
    // fails nothing is changed, and the entries stay claimed.
    virtual bool Commit(const std::vector<const WorkPart*>& parts) = 0;
    virtual bool ReadMarks(const std::string& prefix,
                           std::map<std::string, std::string>* marks) = 0;

    // A reader of `channel`; taken entries belong to it until Remove, its next pass or its end.
    // Entries wait no longer than `longest_pause` seconds, whatever their due time says: the clock
    // may have been set back. Negative on failure.
    virtual std::int64_t BeginReader(const std::string& channel, std::int64_t longest_pause) = 0;
    // Gives back what it still has. The reader ends also when this returns false: a later reader
    // frees it then.
    virtual bool EndReader(std::int64_t reader) = 0;
    virtual void BeginPass(std::int64_t reader) = 0;
    virtual long Take(std::int64_t reader) = 0;  // an identifier, kNoMessage, kQueueFailed
    virtual bool Remove(std::int64_t reader, std::uint32_t id) = 0;
    // Whether the entry, which `reader` has, was in flight when some reader died.
    virtual bool IsSuspect(std::int64_t reader, std::uint32_t id) = 0;
    // Gives the entry back, for nobody before `due` (0: at once), and counts an attempt.
    virtual bool Blame(std::int64_t reader, std::uint32_t id, std::int64_t due) = 0;
    // See HasMQRoomFor and MQNeedsRoomAt.
    virtual bool HasRoomFor(std::int64_t bytes) = 0;
    virtual void NeedRoomAt(const std::string& folder) = 0;

    enum class Found { kYes, kNo, kFailed };
    virtual Found ReadEnvelope(std::uint32_t id, std::string* encoded) = 0;
    virtual std::string PathName(std::uint32_t id, const char* extension) const = 0;

    // For tools.
    virtual bool List(const std::string& channel, std::size_t limit,
                      std::vector<QueueItem>* items) = 0;
    virtual bool Find(std::uint32_t id, std::vector<QueueItem>* items) = 0;
    virtual QueueChange Drop(std::uint32_t id) = 0;
    // `to` empty: to where each was held from.
    virtual QueueChange Move(std::uint32_t id, const std::string& from, const std::string& to) = 0;
};

// Null, with the reason logged at level 1, when the folder or the index cannot be opened. `module`
// tags the log lines.
enum class QueueUse { kLong, kBrief };  // see MQInitBriefly
std::unique_ptr<QueueBackend> OpenSqliteQueue(const std::string& folder, int max_attempts,
                                              const std::string& module = "DL Queue",
                                              QueueUse use = QueueUse::kLong);

// Puts `backend` (not owned) in place of the one that MQInit opened; null goes back. For tests
// (failing wrapper).
void SetQueueBackend(QueueBackend* backend);
// The one that new contexts will stand on; null before MQInit.
QueueBackend* CurrentQueueBackend();

void FillChannel(PendingEntry* entry, const std::string& channel, int priority);
void FillEnvelope(PendingEntry* entry, const stEnvelope& envelope);

// The envelope's blob in the index: a format version, then counted fields. Decode gives null for
// anything else; nothing in a blob is believed before it is checked. Both lists' cursors are null
// in what it gives.
[[nodiscard]] std::string EncodeEnvelope(const stEnvelope& envelope);
[[nodiscard]] std::unique_ptr<stEnvelope> DecodeEnvelope(std::string_view blob);

}  // namespace dl
