// Prints what the service's main job costs: one posting to many members, a burst of postings,
// a digest. Each scenario is a run of its own, so that its peak memory is its own; scripts/bench
// makes them all.
//
//   service_bench posting MEMBERS | burst POSTINGS MEMBERS | digest plain|mime POSTINGS BYTES

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "bench/bench_site.h"
#include "digest/digest.h"
#include "dispatch/dispatcher.h"
#include "lists/dllist.h"
#include "platform/mime/mime.h"
#include "platform/queue/queue.h"

namespace
{

using dl::bench::ListEntries;
using dl::bench::MillisecondsSince;
using dl::bench::Need;
using dl::bench::PeakMemory;
using Clock = dl::bench::SteadyClock;

// A site with a queue, which ends before its folder goes.
struct Site : dl::bench::Site {
    explicit Site(const std::string& ldap_settings) : dl::bench::Site(ldap_settings) {}
    ~Site() { dl::MQEnd(); }
    Site(const Site&) = delete;
    Site& operator=(const Site&) = delete;
};

constexpr std::size_t kMessageBytes = 4096;

std::string Message()
{
    std::string text =
        "From: anna@example.com\r\nTo: list0@example.org\r\nSubject: bench\r\n"
        "Message-ID: <1@bench.example.com>\r\n\r\n";
    while (text.size() < kMessageBytes)
        text += "All work and no play makes a dull benchmark.\r\n";
    return text;
}

void SubmitPosting(const std::string& message)
{
    dl::NewMQEntry entry;
    Need(static_cast<bool>(entry), "making an entry");
    std::ofstream(dl::GetMQPathName(entry.get(), ".msg"), std::ios::binary) << message;
    dl::stEnvelope envelope;
    dl::_envFrom from;
    from.address = "anna@example.com";
    dl::_envRecip to;
    to.address = "list0@example.org";
    to.channel = "dl";
    Need(envelope.AddSender(from) && envelope.AddRecipient(to), "building an envelope");
    Need(dl::Submit(std::move(entry), "dl", 0, &envelope) == dl::Submission::kDone, "submitting");
}

void Process(dl::MQContext* channel)
{
    dl::StringChain processed;
    Need(dl::ProcessQueue(channel, "dl", "dlout", &processed) == 0, "processing the queue");
}

void Posting(int members)
{
    const Site site("File=lists.ldif\n");
    site.Write("lists.ldif", ListEntries(1, members));
    Need(dl::ListCache().InitCache() && dl::MQInit("", "bench"), "starting");
    dl::MQContext* channel = dl::OpenMQChannel("dl");
    const std::string message = Message();
    const Clock::time_point begin = Clock::now();
    SubmitPosting(message);
    Process(channel);
    const double time = MillisecondsSince(begin);
    std::printf(
        "posting of 4 KiB to %6d members: %8.1f ms, %6.2f us a member, peak memory %5.1f MiB\n",
        members, time, 1000 * time / members, PeakMemory());
    Need(dl::CloseMQChannel(channel), "closing the channel");
}

// Entries a second of the cheapest durable queue: file, fsync, folder fsync, one durable commit.
double Floor(const std::string& folder, int count)
{
    sqlite3* db = nullptr;
    const auto run = [&db](const char* sql) {
        Need(sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql);
    };
    std::filesystem::create_directories(folder + "/floor");
    Need(sqlite3_open((folder + "/floor.db").c_str(), &db) == SQLITE_OK,
         "opening the floor's index");
    run("PRAGMA journal_mode=WAL");
    run("PRAGMA synchronous=FULL");
    run("CREATE TABLE entry (id INTEGER PRIMARY KEY, data BLOB)");
    const std::string bytes(kMessageBytes, 'x');
    const int dir = open((folder + "/floor").c_str(), O_RDONLY | O_CLOEXEC);
    const Clock::time_point begin = Clock::now();
    for (int i = 0; i < count; ++i) {
        const std::string path = folder + "/floor/" + std::to_string(i);
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        Need(write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()) &&
                 fsync(fd) == 0 && fsync(dir) == 0,
             "the floor's file");
        close(fd);
        run("INSERT INTO entry (data) VALUES (zeroblob(64))");
    }
    const double time = MillisecondsSince(begin);
    close(dir);
    sqlite3_close(db);
    return 1000 * count / time;
}

void Burst(int postings, int members)
{
    const Site site("File=lists.ldif\n");
    site.Write("lists.ldif", ListEntries(1, members));
    Need(dl::ListCache().InitCache() && dl::MQInit("", "bench"), "starting");
    const double floor = Floor(site.Folder(), postings);
    dl::MQContext* channel = dl::OpenMQChannel("dl");
    const std::string message = Message();
    for (int i = 0; i < postings; ++i)
        SubmitPosting(message);
    const Clock::time_point begin = Clock::now();
    Process(channel);
    const double rate = 1000 * postings / MillisecondsSince(begin);
    std::printf(
        "burst of %d postings to %d members: %.0f entries/s on dlout, floor %.0f/s: %.0f %%, peak "
        "memory %.1f MiB\n",
        postings, members, rate, floor, 100 * rate / floor, PeakMemory());
    Need(dl::CloseMQChannel(channel), "closing the channel");
}

// The postings wait in the digest folder before the clock starts; both disclaimers are inserted.
void Digest(const char* form, int postings, std::size_t bytes)
{
    const Site site("File=lists.ldif\n");
    site.Write("text.txt", "A disclaimer.\r\n");
    site.Write("lists.ldif",
               "dn: mail=list0@example.org,dc=example,dc=org\nobjectClass: qvlist\n"
               "mail: list0@example.org\nmode: 0\narchive: 0\nlistmember: Digest;m@example.com\n"
               "disclaimertxtpath: " +
                   site.Folder() + "/text.txt\ndisclaimerhtmlpath: " + site.Folder() +
                   "/text.txt\n");
    const std::string folder = "data/list0@example.org/digest/";
    const std::string message = Message();
    for (int i = 0; i < postings; ++i) {  // in pieces: the peak is to be the digest's
        std::ofstream out(site.Folder() + "/" + folder + std::to_string(10'000'000 + i) + ".msg");
        for (std::size_t written = 0; written < bytes; written += message.size())
            out << (written == 0 ? message : std::string_view(message).substr(message.find("All")));
    }
    Need(dl::ListCache().InitCache() && dl::MQInit("", "bench"), "starting");
    const Clock::time_point begin = Clock::now();
    const bool plain = std::strcmp(form, "plain") == 0;
    Need(plain ? dl::SendPlainDigest("list0@example.org", "dlout")
               : dl::SendMimeDigest("list0@example.org", "dlout"),
         "sending the digest");
    std::printf("%-5s digest of %4d postings of %8zu bytes: %8.1f ms, peak memory %5.1f MiB\n",
                form, postings, bytes, MillisecondsSince(begin), PeakMemory());
}

}  // namespace

int main(int argc, char** argv)
{
    const auto number = [&](int i) { return std::atoi(argv[i]); };
    dl::InitKVTDll("bench");
    if (argc == 3 && std::strcmp(argv[1], "posting") == 0)
        Posting(number(2));
    else if (argc == 4 && std::strcmp(argv[1], "burst") == 0)
        Burst(number(2), number(3));
    else if (argc == 5 && std::strcmp(argv[1], "digest") == 0)
        Digest(argv[2], number(3), static_cast<std::size_t>(number(4)));
    else
        return 64;
    return 0;
}
