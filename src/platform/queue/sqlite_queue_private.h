// The embedded queue: SQLite index and message files in one folder. See queue_backend.h for what it
// promises.
//
// A removed entry's file must not go before its removal is on disk, or a power loss would bring
// back an entry without its message: files wait in removed_ until a commit that survives a power
// loss.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <map>
#include <mutex>

#include "platform/queue/delivery.h"
#include "platform/queue/entry_files.h"
#include "platform/queue/news_watch.h"
#include "platform/queue/queue_backend.h"
#include "platform/queue/sqlite_private.h"

namespace dl
{

class SqliteQueue : public QueueBackend, public DeliveryBackend
{
 public:
    SqliteQueue(std::string folder, int max_attempts, std::string module);
    ~SqliteQueue() override;
    [[nodiscard]] bool Open(QueueUse use);

    std::optional<std::uint32_t> Reserve() override;
    bool AddChannel(PendingEntry* entry, const std::string& channel, int priority) override;
    bool StoreEnvelope(PendingEntry* entry, const stEnvelope& envelope) override;
    bool Publish(const PendingEntry& entry) override;
    std::vector<bool> PublishMany(const std::vector<const PendingEntry*>& entries) override;
    void Abandon(std::uint32_t id) override;
    bool Prepare(const std::vector<PendingEntry*>& entries) override;
    bool Commit(const std::vector<const WorkPart*>& parts) override;
    bool ReadMarks(const std::string& prefix, std::map<std::string, std::string>* marks) override;

    DeliveryBackend* Deliveries() override { return this; }
    QueueAnswer AnythingDue(std::int64_t reader, std::int64_t now, std::int64_t* closed) override;
    bool TakeDue(std::int64_t reader, std::int64_t now, std::size_t limit,
                 std::vector<DueEntry>* entries) override;
    QueueAnswer ReadDelivery(unsigned long id, std::string* envelope,
                             DeliveryRecord* record) override;
    bool Record(std::int64_t reader, std::span<const DeliveryStep> steps,
                const PendingEntry* published) override;
    bool ReadAnswers(unsigned long id, std::uint32_t from, std::size_t limit,
                     std::vector<RecipientAnswer>* answers) override;
    QueueAnswer Waiting(std::int64_t reader, std::int64_t* next_due) override;
    bool HasRoom() const override;
    bool WaitForNews(std::chrono::milliseconds longest) override;

    std::int64_t BeginReader(const std::string& channel, std::int64_t longest_pause) override;
    bool EndReader(std::int64_t reader) override;
    void BeginPass(std::int64_t reader) override;
    long Take(std::int64_t reader) override;
    bool Remove(std::int64_t reader, std::uint32_t id) override;
    bool IsSuspect(std::int64_t reader, std::uint32_t id) override;
    bool Blame(std::int64_t reader, std::uint32_t id, std::int64_t due) override;
    bool HasRoomFor(std::int64_t bytes) override;
    void NeedRoomAt(const std::string& folder) override;

    Found ReadEnvelope(std::uint32_t id, std::string* encoded) override;
    std::string PathName(std::uint32_t id, const char* extension) const override;

    bool List(const std::string& channel, std::size_t limit,
              std::vector<QueueItem>* items) override;
    bool Find(std::uint32_t id, std::vector<QueueItem>* items) override;
    QueueChange Drop(std::uint32_t id) override;
    QueueChange Move(std::uint32_t id, const std::string& from, const std::string& to) override;

 private:
    bool MoveRows(std::uint32_t id, const std::string& from, const std::string& to);
    struct Reader {
        std::int64_t number;
        std::string channel;
        std::int64_t longest_pause;
        bool pass_open = false;
        std::int64_t last = 0;                 // of what this pass takes, in the order of closing
        std::vector<std::uint32_t> unwritten;  // removals that failed; not taken again from here
        std::string problem;  // why the last Take failed; told once, until it is over
    };
    struct Removals {
        std::vector<std::uint32_t> gone;  // entries that left the queue
        std::vector<std::uint32_t> held;  // entries without an envelope, now in the hold channel
        bool missing = false;             // some entry was not the reader's
    };
    struct Taken {
        enum How { kMessage, kNone, kHeld, kNoRoom, kFailed } how;
        std::uint32_t id;
        int attempts = 0;  // of a held one; 0: its message file is missing
        bool suspect = false;
    };
    struct Recording {  // one call of Record
        std::int64_t reader;
        std::span<const DeliveryStep> steps;
        const PendingEntry* published;
        std::int64_t bytes;
        bool ended;
        bool done;
        Removals removals;
    };

    bool CommitEntry(const PendingEntry& entry, std::int64_t bytes);
    bool GoOnBehindLastEntry(std::string* cause);
    bool InsertEntry(const PendingEntry& entry, std::int64_t bytes);  // inside a transaction

    // Several entries at once (sqlite_group.cpp).
    struct GroupEntry {
        const PendingEntry* entry;
        std::int64_t bytes = 0;
        std::string cause = {};  // why it cannot be published
        bool done = false;
    };
    void SyncGroup(std::vector<GroupEntry>* group) const;
    bool CommitGroup(std::vector<GroupEntry>* group);
    void FinishEntry(const PendingEntry& entry, bool done, const std::string& cause);
    void TellUnpublished(const PendingEntry& entry, const std::string& cause) const;

    // Works (sqlite_work.cpp).
    bool WritePart(const WorkPart& part, Removals* removals);
    static std::string Named(const std::vector<const WorkPart*>& parts);

    // Files (sqlite_queue.cpp).
    EntryFiles::Known Indexed(std::uint32_t id);
    bool EraseFile(std::uint32_t id, const std::string& name);
    void EraseRemoved(bool synced);
    bool SyncIndex();
    bool Sweep(bool alone);

    // Reading (sqlite_reader.cpp); all but OpenPass and TakeOne inside a transaction, false when a
    // query failed.
    bool OpenPass(Reader& reader);
    bool NothingWaits(const Reader& reader);
    bool WakeDue(const Reader& reader, std::int64_t now);
    Taken TakeOne(const Reader& reader);
    Taken TakeRow(const Reader& reader, bool suspects);
    bool HasSuspect(const Reader& reader);
    bool HasRoomToHandle(std::uint32_t id);
    long TellUnread(Reader& reader, const std::string& cause) const;
    void TellRead(Reader& reader) const;
    void TellHeld(const Reader& reader, const Taken& taken) const;
    bool FreeDeadReaders();
    bool FreeReader(std::int64_t reader);
    bool GiveBack(Reader& reader, Removals* removals);
    bool RemoveRow(const Reader& reader, std::uint32_t id, Removals* removals);
    bool ForgetEntry(std::uint32_t id);
    void Finish(const Removals& removals);
    bool IsAlive(std::int64_t reader) const;

    // Handing over (sqlite_delivery.cpp); as above.
    std::int64_t FirstClosed(const std::string& channel, std::int64_t now);
    bool TakeRows(const Reader& reader, std::size_t limit, std::vector<Taken>* taken,
                  std::vector<DueEntry>* entries);
    void CommitRecordings(const std::vector<Recording*>& together);
    bool RecordStep(std::int64_t reader, const DeliveryStep& step, Removals* removals);
    bool RecordAnswers(std::uint32_t id, const DeliveryStep& step);
    bool ReturnRow(std::int64_t reader, std::uint32_t id, std::int64_t due);
    void Withdraw(const PendingEntry& entry);
    static std::string Named(std::span<const DeliveryStep> steps);

    // Tools (sqlite_tools.cpp).
    bool ReadItems(Query* query, std::vector<QueueItem>* items);
    QueueChange FindRows(std::uint32_t id, const std::string* channel, int* priority);

    bool Usable() const;
    std::string Cause() const;
    void Complain(const char* format, ...) const __attribute__((format(printf, 2, 3)));

    const std::string folder_;
    const int max_attempts_;
    const std::string module_;
    const pid_t process_;

    NewsWatch news_;  // of the one thread that waits

    std::mutex recordings_mutex_;  // the next three
    std::condition_variable recordings_change_;
    std::vector<Recording*> recordings_;  // that wait for a commit
    bool recording_ = false;              // some thread commits

    std::mutex mutex_;  // everything below
    Index index_;
    EntryFiles files_;
    std::map<std::int64_t, Reader> readers_;
    std::vector<std::uint32_t> removed_;  // files that may go after the next durable commit
    std::string room_at_;  // a folder of the service's whose disk must have room, too
};

}  // namespace dl
