#include "platform/metrics/metrics.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <system_error>

#include "platform/clock/clock.h"
#include "platform/log/format.h"
#include "platform/log/log.h"

namespace dl
{
namespace
{

constexpr char kModule[] = "DL Metrics";
constexpr char kMagic[8] = {'D', 'L', 'M', 'E', 'T', 'R', 'I', 'C'};
constexpr std::uint32_t kFormat = 1;
constexpr std::size_t kPlaces = 256;  // room for later ones, so that the format stays
constexpr std::size_t kErrorBytes = 480;
static_assert(kMetricCount <= kPlaces);

using Number = std::atomic<std::uint64_t>;
static_assert(Number::is_always_lock_free && sizeof(Number) == 8);
static_assert(std::atomic<char>::is_always_lock_free && sizeof(std::atomic<char>) == 1);

// The file, byte by byte, in this machine's order. The writer makes `turn` odd, changes the error,
// and makes it even: whoever reads it between sees that and reads again.
struct Layout {
    char magic[8];
    std::uint32_t format;
    std::uint32_t order;  // kOrder: another machine's file is no file of ours
    Number turn;
    Number error_at;
    std::atomic<char> error[kErrorBytes];
    Number values[kPlaces];
};
static_assert(sizeof(Layout) == 8 + 8 + 16 + kErrorBytes + 8 * kPlaces);
constexpr std::uint32_t kOrder = 0x01020304;

Layout memory{};
std::atomic<Layout*> current{&memory};
std::mutex error_mutex;

void KeepError(const std::string& escaped)
{
    const std::lock_guard<std::mutex> guard(error_mutex);
    Layout& file = *current.load();
    const std::size_t size = std::min(escaped.size(), kErrorBytes - 1);
    file.turn.fetch_or(1);
    for (std::size_t i = 0; i < size; ++i)
        file.error[i].store(escaped[i], std::memory_order_relaxed);
    file.error[size].store('\0', std::memory_order_relaxed);
    file.error_at.store(static_cast<std::uint64_t>(Now()));
    file.turn.fetch_add(1);
    Count(Metric::kErrors);
}

bool IsOurs(const Layout& file)
{
    return std::memcmp(file.magic, kMagic, sizeof kMagic) == 0 && file.format == kFormat &&
           file.order == kOrder;
}

// Every byte is written, so that a page of the mapping never lacks its place on a full disk.
bool WriteEmpty(int fd)
{
    Layout empty{};
    std::memcpy(empty.magic, kMagic, sizeof kMagic);
    empty.format = kFormat;
    empty.order = kOrder;
    return write(fd, &empty, sizeof empty) == static_cast<ssize_t>(sizeof empty);
}

// What root makes belongs to the folder's owner.
void GiveToOwner(int fd, const std::string& folder)
{
    struct stat status {
    };
    if (geteuid() == 0 && stat(folder.c_str(), &status) == 0 &&
        fchown(fd, status.st_uid, status.st_gid) != 0)
        return;  // the program works with it all the same
}

// Makes an empty file under a name of its own and puts it in its place whole. 0, or errno.
int Make(const std::string& folder, const std::string& path, bool replace)
{
    const std::string temp = path + "." + std::to_string(getpid());
    const int fd = open(temp.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        return errno;
    GiveToOwner(fd, folder);
    errno = ENOSPC;  // of a short write
    int error = WriteEmpty(fd) ? 0 : errno;
    close(fd);
    if (error == 0 &&
        (replace ? rename(temp.c_str(), path.c_str()) : link(temp.c_str(), path.c_str())) != 0)
        error = errno == EEXIST ? 0 : errno;  // another process was first: its file will do
    (void)unlink(temp.c_str());
    return error;
}

// Null with errno 0: there is a file that is none of ours.
Layout* Map(const std::string& path, int how, int protection)
{
    const int fd = open(path.c_str(), how | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0)
        return nullptr;
    struct stat status {
    };
    void* mapped = MAP_FAILED;
    int error = 0;
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
        status.st_size == static_cast<off_t>(sizeof(Layout))) {
        mapped = mmap(nullptr, sizeof(Layout), protection, MAP_SHARED, fd, 0);
        error = mapped == MAP_FAILED ? errno : 0;
    }
    close(fd);
    errno = error;
    if (mapped == MAP_FAILED)
        return nullptr;
    auto* file = static_cast<Layout*>(mapped);
    if (IsOurs(*file))
        return file;
    munmap(mapped, sizeof(Layout));
    errno = 0;
    return nullptr;
}

Layout* OpenFile(const std::string& folder, const std::string& path)
{
    for (int tries = 0; tries < 3; ++tries) {
        if (Layout* file = Map(path, O_RDWR, PROT_READ | PROT_WRITE))
            return file;
        const int problem = errno;
        if (problem == 0)
            LogMessage(1, kModule,
                       FormatText("%s is no metrics file of this program, an empty one takes its "
                                  "place",
                                  path.c_str())
                           .c_str());
        const int error =
            problem == 0 || problem == ENOENT ? Make(folder, path, problem == 0) : problem;
        if (error != 0) {
            errno = error;
            return nullptr;
        }
    }
    errno = EAGAIN;
    return nullptr;
}

// Moves the counts of before; others go on counting meanwhile.
void Switch(Layout* to)
{
    Layout* from = current.exchange(to);
    if (from != &memory || to == &memory)
        return;
    for (std::size_t i = 0; i < kPlaces; ++i)
        if (const std::uint64_t value = from->values[i].exchange(0))
            to->values[i].fetch_add(value);
}

}  // namespace

void Count(Metric metric, std::uint64_t by)
{
    current.load(std::memory_order_acquire)
        ->values[static_cast<std::size_t>(metric)]
        .fetch_add(by, std::memory_order_relaxed);
}

void SetGauge(Metric metric, std::int64_t value)
{
    current.load(std::memory_order_acquire)
        ->values[static_cast<std::size_t>(metric)]
        .store(static_cast<std::uint64_t>(value), std::memory_order_relaxed);
}

void MarkStart()
{
    SetGauge(Metric::kStartedAt, Now());
}

std::string MetricsPath(const std::string& folder, const std::string& program)
{
    return folder + "/" + program + ".metrics";
}

bool OpenMetrics(const std::string& folder, const std::string& program)
{
    const std::string path = MetricsPath(folder, program);
    Layout* file = OpenFile(folder, path);
    if (!file) {
        if (errno != ENOENT)
            LogMessage(1, kModule,
                       FormatText("%s cannot be used: %s", path.c_str(),
                                  std::generic_category().message(errno).c_str())
                           .c_str());
        return false;
    }
    Switch(file);
    SetErrorListener(KeepError);
    return true;
}

void CloseMetrics()
{
    SetErrorListener(nullptr);
    Layout* file = current.exchange(&memory);
    if (file != &memory)
        munmap(file, sizeof(Layout));
    for (Number& value : memory.values)
        value.store(0);
}

bool ReadMetrics(const std::string& folder, const std::string& program, MetricsSnapshot* snapshot)
{
    constexpr int kTries = 100;
    *snapshot = {};
    Layout* file = Map(MetricsPath(folder, program), O_RDONLY, PROT_READ);
    if (!file)
        return false;
    for (std::size_t i = 0; i < kMetricCount; ++i)
        snapshot->values[i] = file->values[i].load();
    for (int tries = 0; tries < kTries; ++tries) {
        const std::uint64_t turn = file->turn.load();
        char text[kErrorBytes];
        for (std::size_t i = 0; i < kErrorBytes; ++i)
            text[i] = file->error[i].load(std::memory_order_acquire);  // `turn` is read after it
        snapshot->last_error_at = static_cast<std::int64_t>(file->error_at.load());
        text[kErrorBytes - 1] = '\0';
        snapshot->last_error = EscapeForLog(text);
        // A writer that was killed in between leaves an odd turn for ever: what is there will do.
        if ((turn & 1) == 0 && file->turn.load() == turn)
            break;
    }
    munmap(file, sizeof(Layout));
    return true;
}

}  // namespace dl
