#include "tools/dlctl/progress.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

namespace dl
{

Progress::Progress(std::string what, std::size_t total) : what_(std::move(what)), total_(total)
{
    if (isatty(STDERR_FILENO) != 0)
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
    if (shown_)
        std::fputs("\r\x1b[K", stderr);
}

void Progress::Update(std::size_t done)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    done_ = done;
}

void Progress::Show()
{
    const auto begin = std::chrono::steady_clock::now();
    std::unique_lock<std::mutex> lock(mutex_);
    while (!change_.wait_for(lock, std::chrono::seconds(1), [this] { return ended_; })) {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                                 std::chrono::steady_clock::now() - begin)
                                 .count();
        shown_ = true;
        if (total_ > 0)
            std::fprintf(stderr, "\r\x1b[K%s: %zu of %zu (%zu %%), %lld s", what_.c_str(), done_,
                         total_, done_ * 100 / total_, static_cast<long long>(seconds));
        else
            std::fprintf(stderr, "\r\x1b[K%s: %lld s", what_.c_str(),
                         static_cast<long long>(seconds));
        std::fflush(stderr);
    }
}

}  // namespace dl
