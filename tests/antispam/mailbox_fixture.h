// A mailbox, the store's template, and what stands in a folder.
#pragma once

#include <sqlite3.h>

#include <filesystem>
#include <string>

#include "antispam/file_message.h"
#include "platform/config/config.h"
#include "tests/support/fixture.h"

namespace dl::testing
{

class MailboxFixture : public Fixture
{
 protected:
    MailboxFixture()
    {
        Configure("");
        Gateway("");
        std::string reason;
        EXPECT_TRUE(MakeStoreTemplate(Path("template"), &reason)) << reason;
        std::filesystem::create_directory(Path("mbx"));
    }

    void Gateway(const std::string& more)
    {
        Write("conf/qvmta.ini", "[MsgStore]\nHomeDir = " + Path("template") + "\n" + more);
    }
    // Runs SQL on a database file of the mailbox, as any other program could.
    void Sql(const std::string& file, const std::string& sql)
    {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(Path("mbx/" + file).c_str(), &db), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(db);
        sqlite3_close(db);
    }
    // Statistics and records of a folder: "flags f, counters m r u, next n; uid(parts, subject)
    // ...; files ...", but for its database files.
    std::string Folder(const std::string& folder)
    {
        const std::string directory = Path("mbx/" + folder);
        diamondBase session;
        mailbox relation(session, Path("mbx"));
        mbxstat stat;
        if (relation.GetMbxStat(folder, &stat) != kStoreDone)
            return "not there";
        std::string text = "flags " + std::to_string(stat.flags) + ", counters " +
                           std::to_string(stat.messages) + " " + std::to_string(stat.recent) + " " +
                           std::to_string(stat.unseen) + ", next " + std::to_string(stat.next_uid);
        msgstat stats(session, directory);
        msgenv envelopes(session, directory);
        msgbody bodies(session, directory);
        for (std::int64_t uid = 0; uid < stat.next_uid + 2; ++uid) {
            msgstat_record record;
            mail_envelope envelope;
            const bool has_stat = stats.GetMsgStat(uid, &record) == kStoreDone;
            const bool has_env = envelopes.GetMsgEnv({uid, 0}, &envelope) == kStoreDone;
            const bool has_inner = envelopes.GetMsgEnv({uid, 1}, &envelope) == kStoreDone;
            const std::int64_t parts = bodies.CountParts({uid, 0});
            if (has_stat || has_env || has_inner || parts > 0)
                text += "; " + std::to_string(uid) + (has_stat ? " stat" : "") +
                        (has_env ? " env" : "") + (has_inner ? " inner" : "") + " parts " +
                        std::to_string(parts);
        }
        text += "; files";
        for (const std::string& name : FileNames(directory))
            if (!name.starts_with("msg"))
                text += " " + name;
        return text;
    }
};

}  // namespace dl::testing
