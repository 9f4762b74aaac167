// The message store: folders of a mailbox, each with its messages' records in database files of its
// own.
//
// A mailbox is a directory; a folder is a path of names inside it, one directory a level. The
// mailbox relation ("mailbox.db" in the mailbox) has one statistics record for each folder; a
// folder's three message relations ("msgstat.db", "msgenv.db", "msgbody.db" in the folder) have the
// records of its messages, whose texts lie beside them in files named by uid. The files are SQLite
// databases, made by copying a template; the other five of the eight are empty and reserved.
//
// A diamondBase is one session; relations are opened in it and live no longer than it. Each
// operation is a transaction of its own and durable when it answers; what belongs together is put
// under the mailbox relation's lock, which other processes respect. Nothing here throws (but for
// lack of memory) or logs. One thread at a time.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/mime/rfc822.h"

namespace dl
{

class StoreFile;
class LockFile;

// Results of the record operations; 0 is success.
inline constexpr int kStoreDone = 0;
inline constexpr int kStoreFailed = -1;    // the database cannot be read or written
inline constexpr int kStoreNotThere = -2;  // no such record

// The database files of a folder, in the order in which they are copied from the template.
inline constexpr std::array<const char*, 8> kStoreFiles = {
    "msgbody.db", "msgbody.id0", "msgbody.str", "msgenv.db",
    "msgenv.id0", "msgenv.str",  "msgstat.db",  "msgstat.id0"};

// Makes the eight files in `folder`, which is made when missing. Files that are there stay as they
// are. False with `reason`.
[[nodiscard]] bool MakeStoreTemplate(const std::string& folder, std::string* reason);

// Statistics of a folder. The bits name the fields in an update's mask.
struct mbxstat {
    static constexpr int kFlags = 0x1, kMessages = 0x2, kRecent = 0x4, kUnseen = 0x8,
                         kNextUid = 0x10;
    static constexpr int kAll = 0x1f;

    std::int64_t flags = 0;
    std::int64_t messages = 0;
    std::int64_t recent = 0;
    std::int64_t unseen = 0;
    std::int64_t next_uid = 0;
    std::int64_t created = 0;  // seconds since 1970-01-01 UTC; never updated
};

// One message's statistics: when it came, by the local clock, and how large it is.
struct msgstat_record {
    int day = 0;    // of month
    int month = 0;  // 1 to 12
    int year = 0;   // since 1970
    int hour = 0;
    int minute = 0;
    int second = 0;
    int zone_hours = 0;  // local time minus UTC, with its sign apart
    int zone_minutes = 0;
    bool zone_negative = false;
    std::int64_t size = 0;    // bytes of the message
    std::int64_t header = 0;  // bytes of its header
    std::int64_t counter1 = 0;
    std::int64_t counter2 = 0;
};

// Key of an envelope or body: (uid, 0) for the message itself, (uid, n) for the n-th message in it.
struct store_key {
    std::int64_t uid = 0;
    std::int64_t number = 0;
};

class diamondBase
{
 public:
    diamondBase();
    ~diamondBase() = default;
    diamondBase(const diamondBase&) = delete;
    diamondBase& operator=(const diamondBase&) = delete;
};

// What the relations share: a database file, and a lock.
class diaRel
{
 public:
    diaRel(const diaRel&) = delete;
    diaRel& operator=(const diaRel&) = delete;

    // False: the file cannot be opened, and every operation answers kStoreFailed.
    [[nodiscard]] bool IsOpen() const { return file_ != nullptr; }
    // Waits, without limit, until nobody else holds the relation's lock. 0 on success. The lock
    // ends with unlock, with the object, and with the process.
    [[nodiscard]] int lock();
    void unlock();

 protected:
    // `create` is the text that makes the tables of a missing file; null: it must be there.
    diaRel(diamondBase& session, const std::string& folder, const std::string& relation,
           const char* create);
    ~diaRel();

    std::unique_ptr<StoreFile> file_;

 private:
    std::string lock_path_;
    std::unique_ptr<LockFile> lock_;
};

class mailbox : public diaRel
{
 public:
    // The file is made when it is missing; the mailbox must be there.
    mailbox(diamondBase& session, const std::string& directory,
            const std::string& relation = "mailbox");
    // Adds a folder; replaces the record of one that is there.
    [[nodiscard]] int AddMbx(const std::string& folder, const mbxstat& stat);
    [[nodiscard]] int RemoveMbx(const std::string& folder);
    [[nodiscard]] int GetMbxStat(const std::string& folder, mbxstat* stat);
    // Writes the fields of `mask` back.
    [[nodiscard]] int UpdateMbxStat(const std::string& folder, const mbxstat& stat, int mask);
};

// Adding replaces a record of the same key: it can only be what a crash left of an unfinished
// filing. Removing one that is not there is no failure.
class msgstat : public diaRel
{
 public:
    msgstat(diamondBase& session, const std::string& folder,
            const std::string& relation = "msgstat");
    [[nodiscard]] int AddMsgStat(std::int64_t uid, const msgstat_record& record);
    [[nodiscard]] int GetMsgStat(std::int64_t uid, msgstat_record* record);
    [[nodiscard]] int RemoveMsgStat(std::int64_t uid);
    // The lowest uid of the folder, and the lowest above `uid`; kStoreNotThere past the last.
    [[nodiscard]] int GetFirstUid(std::int64_t* uid);
    [[nodiscard]] int GetNextUid(std::int64_t uid, std::int64_t* next);
};

class msgenv : public diaRel
{
 public:
    msgenv(diamondBase& session, const std::string& folder, const std::string& relation = "msgenv");
    [[nodiscard]] int AddMsgEnv(const store_key& key, const mail_envelope& envelope);
    [[nodiscard]] int GetMsgEnv(const store_key& key, mail_envelope* envelope);
    [[nodiscard]] int RemoveMsgEnv(const store_key& key);
    // Those of the messages within the message `uid`.
    [[nodiscard]] int RemoveInnerEnvelopes(std::int64_t uid);

 private:
    friend class msgbody;  // writes the inner envelopes in one transaction
};

class msgbody : public diaRel
{
 public:
    msgbody(diamondBase& session, const std::string& folder,
            const std::string& relation = "msgbody");
    // Writes one record a part, in the order of the parts; the envelopes of messages within go to
    // `envelopes`. `envelope` is the key of the message's own.
    [[nodiscard]] int AddMsgBody(msgenv* envelopes, const store_key& key, const store_key& envelope,
                                 const mail_body& body);
    // Parts of a message's body; 0 also for one that is not there.
    [[nodiscard]] std::int64_t CountParts(const store_key& key);
    [[nodiscard]] int RemoveMsgBody(msgenv* envelopes, const store_key& key);
};

}  // namespace dl
