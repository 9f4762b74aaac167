#include "tools/dlsend/waiting_time.h"

#include <algorithm>

namespace dl
{
namespace
{

constexpr std::int64_t kLeast = 60;  // a smaller step matters to nobody

}  // namespace

std::int64_t WaitingTime::Tick(std::int64_t now, std::int64_t uptime)
{
    const std::int64_t before = now_ + (uptime - uptime_);
    const std::int64_t by = now - before;
    now_ = now;
    uptime_ = uptime;
    if (by >= kLeast)
        jumps_.push_back({before, by});
    for (std::int64_t back = by <= -kLeast ? -by : 0; back > 0 && !jumps_.empty();) {
        const std::int64_t part = std::min(back, jumps_.back().by);
        back -= part;
        jumps_.back().by -= part;
        if (jumps_.back().by == 0)
            jumps_.pop_back();
    }
    return by >= kLeast || by <= -kLeast ? by : 0;
}

std::int64_t WaitingTime::Of(std::int64_t closed, std::int64_t now) const
{
    std::int64_t time = now - closed;
    for (const Jump& jump : jumps_)
        if (closed <= jump.before)
            time -= jump.by;
    return time;
}

}  // namespace dl
