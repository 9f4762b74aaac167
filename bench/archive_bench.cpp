// The archive library: first build of 10,000 and of 100,000 postings, one posting more in the
// larger one, and what it costs to remember what each was made from. Prints postings per second and
// the process's peak memory. The files lie in a new folder below $DL_BENCH_DIR (default /var/tmp),
// removed at the end.
//   archive_bench [COUNT...]     other numbers of postings
//   DL_BENCH_ANNOUNCED=1         the postings are announced before, and their sources remembered
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/archive/archive.h"
#include "platform/log/format.h"

namespace
{

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const std::string kList = "garden@lists.example.org";

double Seconds(Clock::time_point since)
{
    return std::chrono::duration<double>(Clock::now() - since).count();
}

double PeakMegabytes()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024;
}

void WriteFile(const std::string& path, const std::string& bytes)
{
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() ||
        std::fclose(file) != 0) {
        std::perror(path.c_str());
        std::exit(1);
    }
}

// A list of 500 people over ten years; four of five postings are replies.
std::string Message(unsigned long id, unsigned long count)
{
    const unsigned long days = id * 3650 / count;
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::string text = dl::FormatText(
        "Message-ID: <bench-%lu@example.com>\r\nDate: %lu %s %lu %02lu:%02lu:%02lu +0000\r\n"
        "From: Person %lu <person%lu@example.com>\r\nTo: garden@lists.example.org\r\n",
        id, 1 + days % 28, kMonths[days / 28 % 12], 2010 + days / (28 * 12), id % 24, id % 60,
        id / 60 % 60, id * 7919 % 500, id * 7919 % 500);
    if (id % 5 != 1 && id > 5)
        text += dl::FormatText("In-Reply-To: <bench-%lu@example.com>\r\nSubject: Re: Topic %lu\r\n",
                               id - 1 - id % 3, id / 5);
    else
        text += dl::FormatText("Subject: Topic %lu\r\n", id / 5);
    text += "Content-Type: text/plain; charset=utf-8\r\n\r\n";
    if (id % 5 != 1)
        text +=
            "On that day somebody wrote:\r\n> The beans are up.\r\n> So are the snails.\r\n\r\n";
    for (unsigned long line = 0; line < 12; ++line)
        text += dl::FormatText(
            "Line %lu of posting %lu tells about roses%lu, beans%lu and caf\xC3\xA9s.\r\n", line,
            id, id * 31 % 1000, line * id % 700);
    return text;
}

void Post(const std::string& archive, unsigned long id, unsigned long count)
{
    WriteFile(archive + dl::FormatText("/%08lX.msg", id), Message(id, count));
    dl::CDlArchive::AddArchive(archive, id);
}

std::uintmax_t IndexSize(const std::string& archive)
{
    std::error_code none;
    std::uintmax_t size = fs::file_size(archive + "/index.db", none);
    const std::uintmax_t log = fs::file_size(archive + "/index.db-wal", none);
    return size + (none ? 0 : log);
}

// Announces the postings, so many in each call; milliseconds for a posting.
double Announce(const std::string& archive, unsigned long from, unsigned long to,
                unsigned long at_once)
{
    const auto start = Clock::now();
    for (unsigned long id = from; id < to; id += at_once) {
        std::vector<dl::ArchiveFiling> filings;
        for (unsigned long i = id; i < std::min(id + at_once, to); ++i)
            filings.push_back({dl::FormatText("%08lX 6B%06lX", i * 7919 % to, i), i});
        dl::CDlArchive::AnnounceArchive(archive, &filings);
    }
    return Seconds(start) * 1000 / static_cast<double>(to - from);
}

void AnnounceAll(const std::string& archive, unsigned long count)
{
    const double all = Announce(archive, 1, count + 1, 1000);
    std::printf("%lu announced, 1000 at once: %.3f ms a posting, the index has %.1f MB\n", count,
                all, static_cast<double>(IndexSize(archive)) / 1e6);
    const double known = Announce(archive, 1, count + 1, 1000);
    std::printf("the same again, all known: %.3f ms a posting\n", known);
}

void Build(const std::string& folder, unsigned long count)
{
    setenv("DLMANAGER_CONF", folder.c_str(), 1);
    WriteFile(folder + "/qvms.conf", "[DlManager]\nDbPath=" + folder + "\n");
    const std::string archive = dl::CDlArchive::PathOf(kList);
    fs::create_directories(archive);
    for (unsigned long id = 1; id <= count; ++id)
        WriteFile(archive + dl::FormatText("/%08lX.msg", id), Message(id, count));
    if (std::getenv("DL_BENCH_ANNOUNCED"))
        AnnounceAll(archive, count);
    auto start = Clock::now();
    dl::CDlArchive::RebuildArchive(kList);  // takes all files that are there
    const double first = Seconds(start);
    std::printf("first build of %lu postings: %.1f s, %.0f postings/s, peak memory %.0f MB\n",
                count, first, static_cast<double>(count) / first, PeakMegabytes());

    constexpr unsigned long kMore = 20;
    double filing = 0;
    double writing = 0;
    for (unsigned long id = count + 1; id <= count + kMore; ++id) {
        start = Clock::now();
        Post(archive, id, count);
        filing += Seconds(start);
        start = Clock::now();
        dl::CDlArchive::GenerateIndexPages(kList);
        writing += Seconds(start);
    }
    std::printf("one posting more in %lu: recorded in %.1f ms, shown in %.1f ms (mean of %lu)\n",
                count, filing * 1000 / kMore, writing * 1000 / kMore, kMore);
    const double one = Announce(archive, count * 2, count * 2 + 100, 1);
    const double ten = Announce(archive, count * 3, count * 3 + 1000, 10);
    std::printf("announced alone: %.2f ms; ten at once: %.2f ms a posting; the index has %.1f MB\n",
                one, ten, static_cast<double>(IndexSize(archive)) / 1e6);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    const char* chosen = std::getenv("DL_BENCH_DIR");
    const fs::path base = fs::path(chosen && *chosen ? chosen : "/var/tmp") /
                          dl::FormatText("archive-bench-%d", static_cast<int>(getpid()));
    std::vector<unsigned long> counts = {10'000, 100'000};
    if (argc > 1)
        counts.clear();
    for (int i = 1; i < argc; ++i)
        counts.push_back(std::strtoul(argv[i], nullptr, 10));
    int status = 0;
    try {
        for (const unsigned long count : counts) {
            const fs::path folder = base / std::to_string(count);
            fs::create_directories(folder);
            Build(folder.string(), count);
        }
    } catch (const dl::CDlArchiveException& problem) {
        std::fprintf(stderr, "%s\n", problem.message);
        status = 1;
    }
    fs::remove_all(base);
    return status;
}
