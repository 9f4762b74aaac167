// LookUpPause: how long a directory that does not answer is left alone by look-ups.
//
// Owned by a list cache. Each failed look-up doubles the pause, from one second to a minute; within
// it look-ups fail at once, so that a burst of messages does not wait for a time-out each, nor log
// the same line for each. Any answer ends it. One thread.
#pragma once

#include <algorithm>
#include <ctime>

#include "platform/clock/clock.h"

namespace dl
{

class LookUpPause
{
 public:
    // A clock that was set back ends the pause.
    [[nodiscard]] bool Runs() const
    {
        const std::time_t passed = Now() - begin_;
        return passed >= 0 && passed < seconds_;
    }
    void Failed()
    {
        constexpr std::time_t kLongest = 60;
        begin_ = Now();
        seconds_ = std::clamp<std::time_t>(seconds_ * 2, 1, kLongest);
    }
    void Answered() { seconds_ = 0; }

 private:
    std::time_t begin_ = 0;
    std::time_t seconds_ = 0;  // 0: no look-up has failed since the last answer
};

}  // namespace dl
