// How long an entry has waited, whatever is done to the host's clock meanwhile.
//
// A clock that is set forward by days must not have mail given up that has hardly been tried. Tick
// is called every now and then; entries that came before a jump that it has seen are younger by
// that much. A jump back takes earlier jumps forward away again. The text of it, which Restore
// takes after a new start, tells of jumps that came while nobody looked, unless the host was
// started again meanwhile. Not locked.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace dl
{

class WaitingTime
{
 public:
    WaitingTime(std::int64_t now, std::int64_t uptime) : now_(now), uptime_(uptime) {}

    // Seconds since 1970-01-01 UTC, and on a clock that nobody sets. Returns by how much the first
    // was set forward (negative: back) since the last call; 0 for less than a minute.
    std::int64_t Tick(std::int64_t now, std::int64_t uptime);
    [[nodiscard]] std::string Text() const;
    // What is no such text changes nothing. Tick comes next.
    void Restore(const std::string& text);
    // Of an entry that came into the queue at `closed`.
    [[nodiscard]] std::int64_t Of(std::int64_t closed, std::int64_t now) const;

 private:
    struct Jump {
        std::int64_t before;  // the last moment before it
        std::int64_t by;
    };
    std::vector<Jump> jumps_;  // forward
    std::int64_t now_;
    std::int64_t uptime_;
};

}  // namespace dl
