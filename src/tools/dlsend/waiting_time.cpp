#include "tools/dlsend/waiting_time.h"

#include <algorithm>
#include <sstream>

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

std::string WaitingTime::Text() const
{
    std::string text = std::to_string(now_) + " " + std::to_string(uptime_);
    for (const Jump& jump : jumps_)
        text += " " + std::to_string(jump.before) + " " + std::to_string(jump.by);
    return text;
}

void WaitingTime::Restore(const std::string& text)
{
    std::istringstream in(text);
    std::int64_t now = 0;
    std::int64_t uptime = 0;
    if (!(in >> now >> uptime))
        return;
    for (Jump jump{}; in >> jump.before >> jump.by;)
        jumps_.push_back(jump);
    // After a start of the host only a clock that went back can be told from the time that passed.
    const bool same_start = uptime <= uptime_;
    if (same_start || now > now_)
        now_ = now;
    if (same_start)
        uptime_ = uptime;
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
