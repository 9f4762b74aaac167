// How much memory something needs at its worst.
//
// With the address sanitizer the bytes that are allocated are counted, else the memory that the
// process really takes, which is a little more. One measurement at a time; all threads count.
#pragma once

#include <cstdint>

namespace dl::testing
{

class PeakMemory
{
 public:
    PeakMemory();
    // The most bytes that were in use since it began, beyond those in use then.
    [[nodiscard]] std::int64_t Bytes() const;

 private:
    std::int64_t before_ = 0;
};

}  // namespace dl::testing
