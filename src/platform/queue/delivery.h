// Handing the entries of a channel over in parts, over as many tries as it takes.
//
// A DeliveryChannel is a reader of one channel. Take gives entries whose time has come, in the
// order of the channel, and keeps them from other readers until a Record ends them: put back with a
// new due time, given back as they were, held, or finished. An entry that was in flight when its
// reader died (see queue.h) comes after all others, one at a time, until a Record ends it. What
// Record was given is on disk when it returns true. Any thread may call; the queue logs the cause
// of a failure in one level 1 line. The states belong to the entry: it is delivered from one
// channel only.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/queue/queue.h"

namespace dl
{

// The first sender and the recipients of an encoded envelope, viewed in place: 100,000 recipients
// cost four bytes each beside the blob.
class CompactEnvelope
{
 public:
    [[nodiscard]] std::size_t Count() const { return offsets_.size(); }
    [[nodiscard]] std::string_view Recipient(std::size_t index) const;
    [[nodiscard]] std::string_view Sender() const { return sender_; }  // "<>" when there is none

 private:
    friend std::optional<CompactEnvelope> DecodeCompact(std::string blob);
    std::string blob_;
    std::string sender_;
    std::vector<std::uint32_t> offsets_;
};
// None when `blob` is no envelope.
[[nodiscard]] std::optional<CompactEnvelope> DecodeCompact(std::string blob);

struct DueEntry {
    unsigned long id = 0;
    std::int64_t closed = 0;  // when it came into the queue, seconds since 1970-01-01 UTC
    std::uint32_t recipients = 0;
};

// On disk as they stand here.
enum class RecipientState : char { kWaiting = 0, kDelivered = 1, kRefused = 2 };

struct DeliveryRecord {
    CompactEnvelope envelope;
    std::string states;   // a RecipientState each; empty: all wait
    int tries = 0;        // how often it was put back
    std::string problem;  // what the last Record said of the entry as a whole
};

struct RecipientAnswer {
    std::uint32_t recipient = 0;
    RecipientState state = RecipientState::kWaiting;
    std::string text;  // kept for ReadAnswers when not empty
};

struct DeliveryStep {
    enum class End {
        kGoOn,      // the entry stays with this reader
        kPutBack,   // waits until `due`; one try more
        kGiveBack,  // as it was before Take
        kHold,      // to "dlhold"
        kFinish,    // leaves the queue, or this channel when it is in others
    };
    unsigned long id = 0;
    std::vector<RecipientAnswer> answers;
    std::optional<std::string> problem;
    End end = End::kGoOn;
    std::int64_t due = 0;  // seconds since 1970-01-01 UTC
};

enum class QueueAnswer { kYes, kNo, kFailed };

class DeliveryBackend
{
 public:
    virtual ~DeliveryBackend() = default;
    virtual QueueAnswer AnythingDue(std::int64_t reader, std::int64_t now,
                                    std::int64_t* closed) = 0;
    virtual bool TakeDue(std::int64_t reader, std::int64_t now, std::size_t limit,
                         std::vector<DueEntry>* entries) = 0;
    virtual QueueAnswer ReadDelivery(unsigned long id, std::string* envelope,
                                     DeliveryRecord* record) = 0;
    // `published` (may be null) becomes visible in the same commit. Steps of several threads share
    // a commit when they come together.
    virtual bool Record(std::int64_t reader, std::span<const DeliveryStep> steps,
                        const struct PendingEntry* published) = 0;
    virtual bool ReadAnswers(unsigned long id, std::uint32_t from, std::size_t limit,
                             std::vector<RecipientAnswer>* answers) = 0;
    virtual QueueAnswer Waiting(std::int64_t reader, std::int64_t* next_due) = 0;
    virtual bool HasRoom() const = 0;
    virtual bool WaitForNews(std::chrono::milliseconds longest) = 0;
};

class DeliveryChannel
{
 public:
    static constexpr std::int64_t kYear = 31'536'000;  // seconds

    // Entries that are put back wait no longer than `longest_pause` seconds, whatever the clock
    // does meanwhile. Null when the queue cannot be read.
    [[nodiscard]] static std::unique_ptr<DeliveryChannel> Open(const std::string& channel,
                                                               std::int64_t longest_pause = kYear);
    // Gives back what is still taken.
    ~DeliveryChannel();
    DeliveryChannel(const DeliveryChannel&) = delete;
    DeliveryChannel& operator=(const DeliveryChannel&) = delete;

    // Whether Take would find something; takes no lock that a writer waits for. `closed` (may be
    // null) then is when the entry that is first in turn came into the queue; 0: not known.
    [[nodiscard]] QueueAnswer AnythingDue(std::int64_t now, std::int64_t* closed = nullptr);
    // Adds at most `limit` entries to `entries`.
    [[nodiscard]] bool Take(std::int64_t now, std::size_t limit, std::vector<DueEntry>* entries);
    // kNo: the entry has no envelope, or a damaged one (logged at level 1).
    [[nodiscard]] QueueAnswer Read(unsigned long id, DeliveryRecord* record);
    // All or nothing. False: nothing was changed, and the entries stay taken.
    [[nodiscard]] bool Record(std::span<const DeliveryStep> steps);
    // The same, and makes `entry` visible in `to`: both are in the queue's index or none. Ends the
    // ownership of `entry` as CloseMQEntry does.
    [[nodiscard]] bool RecordWith(const DeliveryStep& step, NewMQEntry entry, const std::string& to,
                                  stEnvelope* envelope);
    // Kept answers of recipients from `from` on, in their order, at most `limit`.
    [[nodiscard]] bool ReadAnswers(unsigned long id, std::uint32_t from, std::size_t limit,
                                   std::vector<RecipientAnswer>* answers);
    // Whether entries are in the channel, taken or not; `next_due` then is when the first one that
    // is put back comes due (0: none is).
    [[nodiscard]] QueueAnswer Waiting(std::int64_t* next_due);
    // Whether the disk has room for what Record will write. Ask before an entry is handed to
    // anyone: what cannot be written down afterwards is handed over again.
    [[nodiscard]] bool HasRoom() const;
    // Waits at most that long for any process to put an entry into any channel; true when one did
    // since the last call. Not all news comes: look also without. One thread of the process calls.
    [[nodiscard]] bool WaitForNews(std::chrono::milliseconds longest);

 private:
    DeliveryChannel(std::shared_ptr<class QueueBackend> queue, std::int64_t reader);
    const std::shared_ptr<class QueueBackend> queue_;
    const std::int64_t reader_;
};

}  // namespace dl
