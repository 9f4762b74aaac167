#include "tools/dlctl/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "platform/log/log.h"

namespace dl
{
namespace
{

constexpr char kWipe[] = "\r\x1b[K";

// Standard error, and whether a progress line stands on it.
struct Screen {
    std::mutex mutex;
    bool shown = false;

    void Wipe()
    {
        if (shown)
            std::fputs(kWipe, stderr);
        shown = false;
    }
};

Screen& TheScreen()
{
    static Screen screen;
    return screen;
}

bool CanBeWiped()
{
    const char* kind = std::getenv("TERM");
    const std::string_view name = kind ? kind : "";
    return isatty(STDERR_FILENO) != 0 && !name.empty() && name != "dumb";
}

std::size_t Width()
{
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

// The beginning of `text` that takes at most `columns`. Which characters are wide is the
// terminal's business: all but those of ASCII count as two.
std::string Cut(const std::string& text, std::size_t columns)
{
    std::size_t used = 0;
    std::size_t at = 0;
    while (at < text.size()) {
        const bool ascii = static_cast<unsigned char>(text[at]) < 0x80;
        used += ascii ? 1 : 2;
        if (used > columns)
            break;
        do
            ++at;
        while (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80);
    }
    return text.substr(0, at);
}

// "what: measure" in less than `width` columns; what it is gives way first.
std::string Fit(const std::string& what, const std::string& measure, std::size_t width)
{
    constexpr std::string_view kCut = "...";
    const std::size_t tail = measure.size() + 2;
    if (width <= tail + kCut.size() + 1)
        return Cut(measure, width - 1);
    const std::size_t room = width - 1 - tail;
    if (Cut(what, room) == what)
        return what + ": " + measure;
    return Cut(what, room - kCut.size()).append(kCut) + ": " + measure;
}

}  // namespace

Progress::Progress(const std::string& what, std::size_t total, std::chrono::milliseconds step)
    : what_(EscapeForLog(what.c_str())), total_(total), step_(step)
{
    if (CanBeWiped())
        thread_ = std::thread([this] { Show(); });
}

Progress::~Progress()
{
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        ended_ = true;
    }
    change_.notify_all();
    if (thread_.joinable())
        thread_.join();
    const std::lock_guard<std::mutex> screen(TheScreen().mutex);
    TheScreen().Wipe();
}

void Progress::Update(std::size_t done)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    done_ = done;
}

std::string Progress::Measure(std::chrono::seconds time) const
{
    std::string seconds = std::to_string(time.count()) + " s";
    if (total_ == 0)
        return seconds;
    return std::to_string(done_) + " of " + std::to_string(total_) + " (" +
           std::to_string(done_ * 100 / total_) + " %), " + seconds;
}

void Progress::Show()
{
    const auto begin = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> lock(mutex_);
    while (!change_.wait_for(lock, step_, [this] { return ended_; })) {
        const auto time = std::chrono::duration_cast<std::chrono::seconds>(
            std::chrono::steady_clock::now() - begin);
        const std::string line = kWipe + Fit(what_, Measure(time), Width());
        const std::lock_guard<std::mutex> screen(TheScreen().mutex);
        TheScreen().shown = true;
        std::fputs(line.c_str(), stderr);
        std::fflush(stderr);
    }
}

void PrintErrorLine(const std::string& line)
{
    const std::lock_guard<std::mutex> screen(TheScreen().mutex);
    TheScreen().Wipe();
    std::fprintf(stderr, "%s\n", line.c_str());
}

}  // namespace dl
