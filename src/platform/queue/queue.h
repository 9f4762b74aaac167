// The message queue, as the service sees it.
//
// A new entry goes through CreateMQEntry, the writing of its ".msg" file, InsertMQChannel,
// PutMQEnvelope and CloseMQEntry, in that order. Its creator owns it up to CloseMQEntry or
// DiscardMQEntry; no reader sees it before it is closed, and then it is on disk. A channel's reader
// takes entries in the order in which they were closed. Any number of processes may do both at
// once.
//
// A delivery attempt counts only for the entry that was being worked on when its reader died, or
// that BlameMQMessage names. When several were in flight none counts, but all are suspects: they
// come after all others, and a reader that handles them one by one finds the guilty one. After
// Queue/MaxAttempts (default 5) attempts an entry is moved to channel "dlhold".
//
// Null, false and kQueueFailed say that the queue failed: the queue has then logged the cause in
// one level 1 line ("the disk is full"), the caller owns the line that says what this means for the
// message. Why a channel cannot be read is logged once, and once that it can be again. The queue
// logs nothing else but what it moves to "dlhold", at level 1. The contexts are used by one thread
// at a time, different contexts by different threads. MQInit is called after the last fork; a child
// of fork() cannot use the queue that its parent opened.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/queue/envelope.h"

namespace dl
{

class MQContext;  // a channel that is read, or a new entry that is written

inline constexpr long kNoMessage = -1;    // the channel is empty, or this pass has taken all of it
inline constexpr long kQueueFailed = -2;  // the index could not be read or written

// The channels: what came in for lists, what goes out, what is kept for the postmaster.
inline constexpr char kInputChannel[] = "dl";
inline constexpr char kOutputChannel[] = "dlout";
inline constexpr char kHoldChannel[] = "dlhold";

inline constexpr char kDefaultQueuePath[] = "/var/spool/dlmanager/queue";
// The folder Queue/Path of "qvms.conf".
[[nodiscard]] std::string QueuePath();

// Opens the queue in folder Queue/Path of "qvms.conf" (made when missing, mode 0700) and sweeps
// what dead writers left behind. An index of an older version is brought up to date, after a copy
// of it was put beside it ("index.db.format-1"; logged at level 5). `module` tags the queue's log
// lines; `host` is not used by the embedded queue. False when it cannot be opened, is damaged, was
// written by a newer version, or when the index is gone while message files are there.
[[nodiscard]] bool MQInit(const std::string& host, const std::string& module);
// The same for a process that puts in a message and ends: it leaves sweeping, and bringing the
// index's log into the index, to the others.
[[nodiscard]] bool MQInitBriefly(const std::string& module);
// Opens the queue in `folder` instead; for tools with an option and for tests. MQEnd closes it; all
// may be repeated. Contexts that are still open keep their queue open.
[[nodiscard]] bool MQInitAt(const std::string& folder);
void MQEnd();

// Reading. Null when the queue cannot be read.
[[nodiscard]] MQContext* OpenMQChannel(const std::string& name);
// The identifier of the first (next) message, which becomes the context's current one; kNoMessage,
// kQueueFailed. GetFirstMessage begins a pass over what the channel holds then: it takes each entry
// at most once, and keeps what it took from other readers. kQueueFailed also when the disk has no
// room for what a reader writes of a message, some copies of it. `peek` is false in every call.
[[nodiscard]] long GetFirstMessage(MQContext* channel, bool peek);
[[nodiscard]] long GetNextMessage(MQContext* channel, bool peek);

struct EnvelopeResult {
    std::unique_ptr<stEnvelope> envelope;  // null when the entry has none, or the queue failed
    bool failed = false;   // the queue could not be read: the entry may well have one
    bool damaged = false;  // failed, because of this envelope alone
};
[[nodiscard]] EnvelopeResult GetMQEnvelope(unsigned long id);
void FreeMQEnvelope(std::unique_ptr<stEnvelope> envelope);

// Waits at most that long for any process to commit something; true when one did since the last
// call. Not all news comes: look also without. One thread of the process calls.
[[nodiscard]] bool WaitForMQNews(std::chrono::milliseconds longest);

// Takes the context's current message out of the channel; with its last channel it leaves the
// queue. An entry without an envelope goes to "dlhold" instead. Survives the end of the process at
// once, a power loss after the next CloseMQEntry: a power loss may hand a message out again, never
// lose one. False when there is no current message or the index cannot be written; the removal is
// then tried again before the next pass, and the message is not taken again before.
bool RemoveMQChannel(MQContext* channel);
// Whether the current message was in flight when a reader died: it is to be handled by itself.
[[nodiscard]] bool IsSuspectMessage(MQContext* channel);
// Leaves the current message in the channel and gives it to no reader before `due`, seconds since
// 1970-01-01 UTC, at most kLongestPostponement seconds off; `problem` says why, in one line.
inline constexpr std::int64_t kLongestPostponement = 60;
[[nodiscard]] bool PostponeMQMessage(MQContext* channel, std::int64_t due,
                                     const std::string& problem);
// Leaves the current message in the channel and counts an attempt: it was the message's own fault
// that it could not be handled. `due` as above; 0: it may be tried again at once.
bool BlameMQMessage(MQContext* channel, std::int64_t due = 0);
// Ends the context, also when it returns false.
[[nodiscard]] bool CloseMQChannel(MQContext* channel);

// Paths of an entry's file with that extension (".msg"); they need not exist, and are empty when
// the context has no current message. When an entry leaves the queue its ".msg" file goes, other
// files at a later MQInit.
[[nodiscard]] std::string GetMQPathName(const MQContext* context, const char* extension);
[[nodiscard]] std::string GetMQPathName(unsigned long id, const char* extension);
// Identifier of the new entry, or of the channel's current message.
[[nodiscard]] unsigned long GetMQId(const MQContext* context);

// Whether a message of so many bytes may be taken in: beside it there is room for what the service
// and dlsend need to drain what waits. True also when the queue cannot be read: whoever stores the
// message then is told so.
[[nodiscard]] bool HasMQRoomFor(std::int64_t bytes);
// Readers take nothing either while the disk of `folder` has no room for copies of it.
void MQNeedsRoomAt(const std::string& folder);

// Writing.
[[nodiscard]] MQContext* CreateMQEntry();
[[nodiscard]] bool InsertMQChannel(MQContext* entry, const std::string& channel, int priority);
[[nodiscard]] bool PutMQEnvelope(MQContext* entry, stEnvelope* envelope);  // stays the caller's
// Makes `entry` visible to its channels' readers, durably. Ends the caller's ownership also when it
// returns false: the entry is then the queue's to clean up. Never discard after this.
[[nodiscard]] bool CloseMQEntry(MQContext* entry);
// CloseMQEntry for each, in this order and with the syncs of one: for who has several at the same
// moment. The results stand in the order of the entries; one that fails does not touch the others.
[[nodiscard]] std::vector<bool> CloseMQEntries(const std::vector<MQContext*>& entries);
void DiscardMQEntry(MQContext* entry);
// Gives an unfinished entry up to the queue without removing it: swept when this process has ended.
void LeaveMQEntry(MQContext* entry);

// Owner of a new entry: discards in its destructor unless Close or Leave came first.
class NewMQEntry
{
 public:
    NewMQEntry() : entry_(CreateMQEntry()) {}
    ~NewMQEntry();
    NewMQEntry(NewMQEntry&& other) noexcept : entry_(other.entry_) { other.entry_ = nullptr; }
    NewMQEntry& operator=(NewMQEntry&&) = delete;

    explicit operator bool() const { return entry_ != nullptr; }
    [[nodiscard]] MQContext* get() const { return entry_; }
    [[nodiscard]] bool Close();
    void Discard();
    void Leave();
    // The entry, which is the caller's now; for CloseMQEntries.
    [[nodiscard]] MQContext* Release() { return std::exchange(entry_, nullptr); }

 private:
    MQContext* entry_;
};

// The whole submission of a written entry; says which step failed. The entry is discarded after a
// failure of the first two and the queue's after one of the third.
enum class Submission { kDone, kInsertFailed, kPutFailed, kCloseFailed };
[[nodiscard]] Submission Submit(NewMQEntry entry, const std::string& channel, int priority,
                                stEnvelope* envelope);

// What a tool sees of the queue. Reading only, but for the three verbs.
struct QueueItem {
    unsigned long id = 0;
    std::string channel;
    std::string sender;
    std::uint32_t recipients = 0;
    std::int64_t bytes = 0;
    std::int64_t closed = 0;  // seconds since 1970-01-01 UTC
    std::string origin;       // of an entry in "dlhold": the channel that it was moved from
    int attempts = 0;         // delivery attempts that the entry itself has ended
    bool suspect = false;     // was in flight when a reader died
    bool taken = false;       // a living reader has it now
    // Of an entry that is handed over in parts (see delivery.h):
    std::int64_t due = 0;  // put back until then; 0: it may be taken
    int tries = 0;         // how often it was put back
    std::string problem;   // what was last said of the whole entry
};
// `channel` empty: all; in the order in which a reader would see them, at most `limit` (0: no
// limit). False on failure.
[[nodiscard]] bool ListMQ(const std::string& channel, std::size_t limit,
                          std::vector<QueueItem>* items);
// The items of one entry, one for each channel that it is in; none when it is not in the queue.
[[nodiscard]] bool FindMQ(unsigned long id, std::vector<QueueItem>* items);

// The channels at a glance, for monitoring. Opens the index by itself, for reading only: nothing is
// made, swept, migrated or logged, and no running program waits for it.
struct ChannelOverview {
    std::string channel;
    std::int64_t waiting = 0;   // entries, all of them
    std::int64_t taken = 0;     // of them some reader has or had
    std::int64_t put_back = 0;  // of them wait for another try
    std::int64_t oldest = 0;    // when its oldest entry came into the queue, seconds since 1970
};
struct QueueOverview {
    enum class State { kRead, kNoQueue, kNewer, kFailed } state = State::kFailed;
    std::string cause;                      // one line, when not kRead
    int format = 0;                         // of the index
    std::vector<ChannelOverview> channels;  // those with entries, by name
};
// One entry as it stands in one channel, read in the same way.
struct EntryOverview {
    std::string channel;
    std::string origin;       // of one in "dlhold"
    std::int64_t closed = 0;  // seconds since 1970-01-01 UTC, as `due`
    std::int64_t due = 0;     // of its next try; 0: at once
    std::int64_t recipients = 0;
    std::int64_t delivered = 0;
    std::int64_t refused = 0;
    std::int64_t tries = 0;
    bool taken = false;
    std::string problem;  // of its last try
};
// Empty when it is not there, or the index cannot be read.
[[nodiscard]] std::vector<EntryOverview> ReadQueueEntry(const std::string& folder,
                                                        unsigned long id);
inline constexpr int kQueueFormat = 3;  // what this program writes
[[nodiscard]] QueueOverview ReadQueueOverview(const std::string& folder);

// kTaken: a living reader has it, nothing was changed. kDone: it is so on disk. A moved item comes
// last in its new channel, with no attempts counted.
enum class QueueChange { kDone, kNotThere, kTaken, kFailed };
[[nodiscard]] QueueChange RemoveMQItem(unsigned long id);
[[nodiscard]] QueueChange MoveMQItem(unsigned long id, const std::string& from,
                                     const std::string& to);
// Puts a held entry back into each channel that it was held from; one whose origin is not known
// stays.
[[nodiscard]] QueueChange ReleaseMQItem(unsigned long id);

}  // namespace dl
