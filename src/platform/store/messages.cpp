#include "platform/queue/lock_file.h"
#include "platform/store/sqlite_private.h"
#include "platform/store/store.h"

namespace dl
{
namespace
{

int ReadUid(StoreQuery* query, std::int64_t* uid)
{
    if (!query->Row())
        return query->Failed() ? kStoreFailed : kStoreNotThere;
    *uid = query->Int(0);
    return kStoreDone;
}

// The writing of one message's parts.
struct PartWriter {
    StoreFile* file;
    msgenv* envelopes;
    store_key key;
    std::int64_t parts = 0;
    std::int64_t messages = 0;  // within it, so far

    int Write(const mail_body& body, const std::string& path, std::int64_t envelope)
    {
        int result =
            StoreQuery(file, "INSERT OR REPLACE INTO msgbody VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?)",
                       key.uid, key.number, parts++, path, envelope, body.type, body.subtype,
                       body.encoding, body.id, body.description, body.disposition, body.offset,
                       body.size)
                .Run();
        std::int64_t inner = envelope;
        if (result == kStoreDone && body.envelope) {
            inner = ++messages;
            result = envelopes->AddMsgEnv({key.uid, inner}, *body.envelope);
        }
        std::int64_t number = 0;
        for (const mail_body& part : body.parts) {
            if (result != kStoreDone)
                break;
            ++number;
            result = Write(part, (path.empty() ? "" : path + ".") + std::to_string(number), inner);
        }
        return result;
    }
};

}  // namespace

msgstat::msgstat(diamondBase& session, const std::string& folder, const std::string& relation)
    : diaRel(session, folder, relation, nullptr)
{
}

int msgstat::AddMsgStat(std::int64_t uid, const msgstat_record& record)
{
    const auto number = [](int value) { return static_cast<std::int64_t>(value); };
    return StoreQuery(file_.get(),
                      "INSERT OR REPLACE INTO msgstat VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?)", uid,
                      number(record.day), number(record.month), number(record.year),
                      number(record.hour), number(record.minute), number(record.second),
                      number(record.zone_hours), number(record.zone_minutes),
                      number(record.zone_negative ? 1 : 0), record.size, record.header,
                      record.counter1, record.counter2)
        .Run();
}

int msgstat::GetMsgStat(std::int64_t uid, msgstat_record* record)
{
    StoreQuery query(file_.get(), "SELECT * FROM msgstat WHERE uid = ?", uid);
    if (!query.Row())
        return query.Failed() ? kStoreFailed : kStoreNotThere;
    const auto number = [&query](int column) { return static_cast<int>(query.Int(column)); };
    *record = {number(1),     number(2),     number(3),    number(4),      number(5),
               number(6),     number(7),     number(8),    number(9) != 0, query.Int(10),
               query.Int(11), query.Int(12), query.Int(13)};
    return kStoreDone;
}

int msgstat::RemoveMsgStat(std::int64_t uid)
{
    return StoreQuery(file_.get(), "DELETE FROM msgstat WHERE uid = ?", uid).Run();
}

int msgstat::GetFirstUid(std::int64_t* uid)
{
    StoreQuery query(file_.get(), "SELECT uid FROM msgstat ORDER BY uid LIMIT 1");
    return ReadUid(&query, uid);
}

int msgstat::GetNextUid(std::int64_t uid, std::int64_t* next)
{
    StoreQuery query(file_.get(), "SELECT uid FROM msgstat WHERE uid > ? ORDER BY uid LIMIT 1",
                     uid);
    return ReadUid(&query, next);
}

msgenv::msgenv(diamondBase& session, const std::string& folder, const std::string& relation)
    : diaRel(session, folder, relation, nullptr)
{
}

int msgenv::AddMsgEnv(const store_key& key, const mail_envelope& envelope)
{
    return StoreQuery(file_.get(), "INSERT OR REPLACE INTO msgenv VALUES (?,?,?,?,?,?,?,?,?,?,?,?)",
                      key.uid, key.number, envelope.date, envelope.subject, envelope.message_id,
                      envelope.in_reply_to, envelope.from, envelope.sender, envelope.reply_to,
                      envelope.to, envelope.cc, envelope.bcc)
        .Run();
}

int msgenv::GetMsgEnv(const store_key& key, mail_envelope* envelope)
{
    StoreQuery query(file_.get(), "SELECT * FROM msgenv WHERE uid = ? AND number = ?", key.uid,
                     key.number);
    if (!query.Row())
        return query.Failed() ? kStoreFailed : kStoreNotThere;
    *envelope = {query.Text(2), query.Text(3), query.Text(4), query.Text(5),  query.Text(6),
                 query.Text(7), query.Text(8), query.Text(9), query.Text(10), query.Text(11)};
    return kStoreDone;
}

int msgenv::RemoveMsgEnv(const store_key& key)
{
    return StoreQuery(file_.get(), "DELETE FROM msgenv WHERE uid = ? AND number = ?", key.uid,
                      key.number)
        .Run();
}

int msgenv::RemoveInnerEnvelopes(std::int64_t uid)
{
    return StoreQuery(file_.get(), "DELETE FROM msgenv WHERE uid = ? AND number > 0", uid).Run();
}

msgbody::msgbody(diamondBase& session, const std::string& folder, const std::string& relation)
    : diaRel(session, folder, relation, nullptr)
{
}

int msgbody::AddMsgBody(msgenv* envelopes, const store_key& key, const store_key& envelope,
                        const mail_body& body)
{
    // One transaction each: a message may have thousands of parts, each of which would be synced
    // alone.
    StoreFile* inner = envelopes->file_.get();
    if (!file_ || !inner || !inner->Execute("BEGIN IMMEDIATE"))
        return kStoreFailed;
    if (!file_->Execute("BEGIN IMMEDIATE")) {
        (void)inner->Execute("ROLLBACK");
        return kStoreFailed;
    }
    int result = StoreQuery(file_.get(), "DELETE FROM msgbody WHERE uid = ? AND number = ?",
                            key.uid, key.number)
                     .Run();
    if (result == kStoreDone)
        result = PartWriter{file_.get(), envelopes, key}.Write(body, "", envelope.number);
    // Envelopes that no body names do no harm, so theirs comes first.
    if (result == kStoreDone && inner->Execute("COMMIT") && file_->Execute("COMMIT"))
        return kStoreDone;
    (void)file_->Execute("ROLLBACK");  // either may have been committed, or rolled back by SQLite
    (void)inner->Execute("ROLLBACK");
    (void)envelopes->RemoveInnerEnvelopes(key.uid);
    return kStoreFailed;
}

std::int64_t msgbody::CountParts(const store_key& key)
{
    StoreQuery query(file_.get(), "SELECT count(*) FROM msgbody WHERE uid = ? AND number = ?",
                     key.uid, key.number);
    return query.Row() ? query.Int(0) : 0;
}

int msgbody::RemoveMsgBody(msgenv* envelopes, const store_key& key)
{
    const int result = StoreQuery(file_.get(), "DELETE FROM msgbody WHERE uid = ? AND number = ?",
                                  key.uid, key.number)
                           .Run();
    return result == kStoreDone ? envelopes->RemoveInnerEnvelopes(key.uid) : result;
}

}  // namespace dl
