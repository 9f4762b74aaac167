// Makes the disk fail: reads by file descriptor (pread) of the whole program, from the n-th on.
//
// For programs that are linked with failing_reads.cpp, which stands before the C library's call.
// Back to normal when it ends. Any thread.
#pragma once

namespace dl::testing
{

class FailingReads
{
 public:
    // So many reads more are good, all others end with `error`.
    FailingReads(int good, int error);
    ~FailingReads();
    FailingReads(const FailingReads&) = delete;
    FailingReads& operator=(const FailingReads&) = delete;

    // Whether a read has failed.
    [[nodiscard]] bool Happened() const;
};

}  // namespace dl::testing
