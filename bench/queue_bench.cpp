// Prints what the queue costs beside what this machine's disk costs: the floor is what any durable
// queue must pay.
//
//   queue_bench [FOLDER]   the folder (default: a new one under /var/tmp) is removed at the end

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "platform/files/files.h"
#include "platform/queue/queue.h"
#include "platform/queue/queue_backend.h"

namespace
{

using dl::stEnvelope;

constexpr std::size_t kMessageBytes = 4096;
const std::string kMessage(kMessageBytes, 'x');

void Need(bool ok, const char* what)
{
    if (ok)
        return;
    std::fprintf(stderr, "queue_bench: %s failed\n", what);
    std::exit(1);
}

void Report(const char* what, int count, const std::function<void(int)>& deed)
{
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < count; ++i)
        deed(i);
    const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - begin;
    std::printf("%-58s %8d %12.1f %10.0f\n", what, count, time.count() / count,
                1e6 * count / time.count());
    std::fflush(stdout);
}

void WriteFile(const std::string& path, bool sync)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    Need(
        fd >= 0 && write(fd, kMessage.data(), kMessageBytes) == static_cast<ssize_t>(kMessageBytes),
        "writing a file");
    Need(!sync || fsync(fd) == 0, "fsync");
    close(fd);
}

void Floor(const std::string& folder)
{
    std::filesystem::create_directories(folder);
    const auto path = [&folder](int i) { return folder + "/" + std::to_string(i); };
    Report("floor: write a file of 4 KiB", 500, [&](int i) { WriteFile(path(i), false); });
    Report("floor: + fsync file", 500, [&](int i) { WriteFile(path(1000 + i), true); });
    Report("floor: + fsync folder", 500, [&](int i) {
        WriteFile(path(2000 + i), true);
        Need(dl::SyncPath(folder), "fsync of the folder");
    });
    sqlite3* db = nullptr;
    sqlite3_stmt* insert = nullptr;
    Need(sqlite3_open((folder + "/floor.db").c_str(), &db) == SQLITE_OK &&
             sqlite3_exec(db,
                          "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
                          "CREATE TABLE t (id INTEGER PRIMARY KEY, text TEXT)",
                          nullptr, nullptr, nullptr) == SQLITE_OK &&
             sqlite3_prepare_v2(db, "INSERT INTO t (text) VALUES ('one row')", -1, &insert,
                                nullptr) == SQLITE_OK,
         "the floor's database");
    Report("floor: one durable SQLite commit", 500, [&](int) {
        Need(sqlite3_step(insert) == SQLITE_DONE, "a commit");
        sqlite3_reset(insert);
    });
    Report("floor: file, folder and commit", 500, [&](int i) {
        WriteFile(path(3000 + i), true);
        Need(dl::SyncPath(folder) && sqlite3_step(insert) == SQLITE_DONE, "a commit");
        sqlite3_reset(insert);
    });
    sqlite3_finalize(insert);
    sqlite3_close(db);
}

void Fill(stEnvelope* envelope, int recipients)
{
    Need(envelope->AddSender({.address = "owner-list@lists.example.org", .channel = "dlout"}),
         "a sender");
    for (int i = 0; i < recipients; ++i)
        Need(envelope->AddRecipient({.address = envelope->Text(
                                         "member" + std::to_string(100000 + i) + "@example.org")}),
             "a recipient");
}

void Put(const std::string& channel, stEnvelope* envelope)
{
    dl::NewMQEntry entry;
    Need(static_cast<bool>(entry), "CreateMQEntry");
    WriteFile(dl::GetMQPathName(entry.get(), ".msg"), false);
    Need(dl::Submit(std::move(entry), channel, 255, envelope) == dl::Submission::kDone, "Submit");
}

void TakeAndRemove(const char* what, const std::string& name, int count)
{
    dl::MQContext* channel = dl::OpenMQChannel(name);
    Need(channel, "OpenMQChannel");
    Report(what, count, [&](int i) {
        const long id =
            i == 0 ? dl::GetFirstMessage(channel, false) : dl::GetNextMessage(channel, false);
        Need(id >= 0 && dl::GetMQEnvelope(static_cast<unsigned long>(id)).envelope != nullptr &&
                 dl::RemoveMQChannel(channel),
             "taking a message");
    });
    Need(dl::CloseMQChannel(channel), "CloseMQChannel");
}

void Messages()
{
    stEnvelope one;
    Fill(&one, 1);
    Report("queue: create, write 4 KiB, close (durable)", 500, [&](int) { Put("a", &one); });
    TakeAndRemove("queue: take, read envelope, remove", "a", 500);
    for (const int recipients : {10000, 100000}) {
        stEnvelope envelope;
        const std::string label = std::to_string(recipients) + " recipients: ";
        const int count = recipients > 10000 ? 5 : 20;
        Report((label + "build the envelope").c_str(), 1,
               [&](int) { Fill(&envelope, recipients); });
        std::string blob;
        Report((label + "encode").c_str(), count,
               [&](int) { blob = dl::EncodeEnvelope(envelope); });
        Report((label + "decode").c_str(), count,
               [&](int) { Need(dl::DecodeEnvelope(blob) != nullptr, "decoding"); });
        Report((label + "create, write 4 KiB, close (durable)").c_str(), count,
               [&](int) { Put("b", &envelope); });
        TakeAndRemove((label + "take, read envelope, remove").c_str(), "b", count);
        std::printf("  (%zu bytes of envelope)\n", blob.size());
    }
}

// Fills the queue beside its front, in one commit: through it the disk's syncs alone would take
// minutes.
void FillLongQueue(const std::string& folder, int waiting)
{
    stEnvelope one;
    Fill(&one, 1);
    Put("c", &one);
    std::vector<dl::QueueItem> items;
    Need(dl::ListMQ("c", 1, &items) && items.size() == 1, "ListMQ");
    const std::string from = std::to_string(items[0].id);
    dl::MQEnd();
    sqlite3* db = nullptr;
    const std::string sql =
        "BEGIN; CREATE TEMP TABLE n AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 "
        "FROM n"
        " LIMIT " +
        std::to_string(waiting) + ") SELECT i + " + from +
        " AS id FROM n;"
        "INSERT INTO entry SELECT n.id, sender, recipients, bytes, closed FROM n, entry WHERE "
        "entry.id = " +
        from + "; INSERT INTO envelope SELECT n.id, data FROM n, envelope WHERE entry = " + from +
        "; INSERT INTO chan (channel, entry, priority) SELECT 'c', id, 255 FROM n; COMMIT";
    Need(sqlite3_open((folder + "/index.db").c_str(), &db) == SQLITE_OK &&
             sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK,
         "filling the index");
    sqlite3_close(db);
    char name[32];
    for (int i = 1; i <= waiting; ++i) {
        std::snprintf(name, sizeof name, "/msg/%08lX.msg",
                      items[0].id + static_cast<unsigned long>(i));
        WriteFile(folder + name, false);
    }
    Need(dl::MQInitAt(folder), "MQInit");
}

void LongQueue(const std::string& folder, int waiting)
{
    stEnvelope one;
    Fill(&one, 1);
    FillLongQueue(folder, waiting);
    Report("100,000 waiting: close and open the queue", 1,
           [&](int) { Need(dl::MQInitAt(folder), "MQInit"); });
    const auto service = dl::OpenSqliteQueue(folder, 5);
    Report("100,000 waiting: open it beside another process", 5,
           [&](int) { Need(dl::OpenSqliteQueue(folder, 5) != nullptr, "a second one"); });
    dl::MQContext* channel = dl::OpenMQChannel("c");
    Need(channel && dl::GetFirstMessage(channel, false) >= 0, "the first message");
    Report("100,000 waiting: take the oldest", 2000,
           [&](int) { Need(dl::GetNextMessage(channel, false) >= 0, "the next message"); });
    Report("100,000 waiting: take the oldest and remove it", 2000, [&](int) {
        Need(dl::GetNextMessage(channel, false) >= 0 && dl::RemoveMQChannel(channel),
             "the next message");
    });
    std::vector<dl::QueueItem> items;
    Report("100,000 waiting: the first 20 of the list", 5,
           [&](int) { Need(dl::ListMQ("c", 20, &items), "ListMQ"); });
    Report("100,000 waiting: the whole list", 2,
           [&](int) { Need(dl::ListMQ("", 0, &items), "ListMQ"); });
    Report("100,000 waiting: create, write 4 KiB, close (durable)", 200,
           [&](int) { Put("c", &one); });
    Need(dl::CloseMQChannel(channel), "CloseMQChannel");
}

}  // namespace

int main(int argc, char** argv)
{
    std::string folder = argc > 1 ? argv[1] : "/var/tmp/queue_bench.XXXXXX";
    Need(argc > 1 || mkdtemp(folder.data()), "making a folder");
    std::printf("%-58s %8s %12s %10s\n", "what", "times", "us each", "a second");
    Floor(folder + "/floor");
    Need(dl::MQInitAt(folder + "/queue"), "MQInit");
    Messages();
    LongQueue(folder + "/queue", 100000);
    dl::MQEnd();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return 0;
}
