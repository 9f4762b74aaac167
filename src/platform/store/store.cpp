#include "platform/store/store.h"

#include <filesystem>
#include <fstream>

#include "platform/files/files.h"
#include "platform/queue/lock_file.h"
#include "platform/store/sqlite_private.h"

namespace dl
{
namespace
{

constexpr char kMailboxTables[] =
    "CREATE TABLE IF NOT EXISTS mailbox (folder TEXT PRIMARY KEY, flags INTEGER NOT NULL,"
    " messages INTEGER NOT NULL, recent INTEGER NOT NULL, unseen INTEGER NOT NULL,"
    " next_uid INTEGER NOT NULL, created INTEGER NOT NULL)";
constexpr char kStatTables[] =
    "CREATE TABLE IF NOT EXISTS msgstat (uid INTEGER PRIMARY KEY, day, month, year, hour, minute,"
    " second, zone_hours, zone_minutes, zone_negative, size, header, counter1, counter2)";
constexpr char kEnvTables[] =
    "CREATE TABLE IF NOT EXISTS msgenv (uid INTEGER, number INTEGER, date, subject, message_id,"
    " in_reply_to, sent_from, sender, reply_to, sent_to, cc, bcc, PRIMARY KEY (uid, number))";
// path: "1.2" for the second part of the first; empty for the whole
constexpr char kBodyTables[] =
    "CREATE TABLE IF NOT EXISTS msgbody (uid INTEGER, number INTEGER, part INTEGER, path,"
    " envelope INTEGER, type, subtype, encoding, id, description, disposition, offset INTEGER,"
    " size INTEGER, PRIMARY KEY (uid, number, part))";

// The tables of one of the eight files; null for one that has none.
const char* TablesOf(const std::string& file)
{
    if (file == "msgstat.db")
        return kStatTables;
    if (file == "msgenv.db")
        return kEnvTables;
    return file == "msgbody.db" ? kBodyTables : nullptr;
}

}  // namespace

bool MakeStoreTemplate(const std::string& folder, std::string* reason)
{
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        *reason = "cannot make " + folder + ": " + error.message();
        return false;
    }
    for (const char* name : kStoreFiles) {
        const std::string path = folder + "/" + name;
        const char* tables = TablesOf(name);
        const bool made = tables ? StoreFile::Open(path, tables) != nullptr
                                 : std::ofstream(path, std::ios::app).is_open();
        if (!made || !SyncPath(path)) {
            *reason = "cannot make " + path;
            return false;
        }
    }
    if (!SyncPath(folder)) {
        *reason = "cannot sync " + folder;
        return false;
    }
    return true;
}

diamondBase::diamondBase()
{
    sqlite3_initialize();
}

diaRel::diaRel(diamondBase& /*session*/, const std::string& folder, const std::string& relation,
               const char* create)
    : file_(StoreFile::Open(folder + "/" + relation + ".db", create)),
      lock_path_(folder + "/" + relation + ".lock")
{
}

diaRel::~diaRel() = default;

int diaRel::lock()
{
    if (!lock_) {
        auto opened = std::make_unique<LockFile>();
        if (!opened->Open(lock_path_))
            return kStoreFailed;
        lock_ = std::move(opened);
    }
    return lock_->Wait(0) ? kStoreDone : kStoreFailed;
}

void diaRel::unlock()
{
    if (lock_)
        lock_->Unlock(0);
}

mailbox::mailbox(diamondBase& session, const std::string& directory, const std::string& relation)
    : diaRel(session, directory, relation, kMailboxTables)
{
}

int mailbox::AddMbx(const std::string& folder, const mbxstat& stat)
{
    return StoreQuery(file_.get(), "INSERT OR REPLACE INTO mailbox VALUES (?,?,?,?,?,?,?)", folder,
                      stat.flags, stat.messages, stat.recent, stat.unseen, stat.next_uid,
                      stat.created)
        .Run();
}

int mailbox::RemoveMbx(const std::string& folder)
{
    return StoreQuery(file_.get(), "DELETE FROM mailbox WHERE folder = ?", folder).Run();
}

int mailbox::GetMbxStat(const std::string& folder, mbxstat* stat)
{
    StoreQuery query(file_.get(),
                     "SELECT flags, messages, recent, unseen, next_uid, created FROM mailbox"
                     " WHERE folder = ?",
                     folder);
    if (!query.Row())
        return query.Failed() ? kStoreFailed : kStoreNotThere;
    *stat = {query.Int(0), query.Int(1), query.Int(2), query.Int(3), query.Int(4), query.Int(5)};
    return kStoreDone;
}

int mailbox::UpdateMbxStat(const std::string& folder, const mbxstat& stat, int mask)
{
    mbxstat now;
    const int found = GetMbxStat(folder, &now);
    if (found != kStoreDone)
        return found;
    const auto pick = [mask](int bit, std::int64_t given, std::int64_t old) {
        return (mask & bit) != 0 ? given : old;
    };
    return StoreQuery(file_.get(),
                      "UPDATE mailbox SET flags = ?, messages = ?, recent = ?, unseen = ?,"
                      " next_uid = ? WHERE folder = ?",
                      pick(mbxstat::kFlags, stat.flags, now.flags),
                      pick(mbxstat::kMessages, stat.messages, now.messages),
                      pick(mbxstat::kRecent, stat.recent, now.recent),
                      pick(mbxstat::kUnseen, stat.unseen, now.unseen),
                      pick(mbxstat::kNextUid, stat.next_uid, now.next_uid), folder)
        .Run();
}

}  // namespace dl
