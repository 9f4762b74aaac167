// Which calls of a wrapper fail: the n-th of a kind, counted from 1 over all threads.
#pragma once

#include <map>
#include <mutex>

namespace dl::testing
{

template <typename Call>
class Faults
{
 public:
    // The n-th call of that kind from now on fails, and the `times` - 1 after it; this takes the
    // place of what was said of that kind before.
    void FailNth(Call call, int n, int times = 1)
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        Count& count = counts_[call];
        count.first = count.made + n;
        count.last = count.first + times - 1;
    }
    void FailNext(Call call) { FailNth(call, 1); }
    void ForgetFaults()
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        for (auto& [call, count] : counts_)
            count.last = -1;
    }
    // How many calls of that kind were made.
    [[nodiscard]] int Made(Call call)
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        return counts_[call].made;
    }

 protected:
    Faults() = default;
    ~Faults() = default;
    bool Fails(Call call)
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        Count& count = counts_[call];
        ++count.made;
        return count.made >= count.first && count.made <= count.last;
    }

 private:
    struct Count {
        int made = 0;
        int first = 0;
        int last = -1;
    };
    std::mutex mutex_;
    std::map<Call, Count> counts_;
};

}  // namespace dl::testing
