#include "tests/support/failing_reads.h"

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace
{

constexpr int kNever = 1 << 30;
std::atomic<int> left{kNever};
std::atomic<int> cause{0};

}  // namespace

extern "C" ssize_t pread(int file, void* bytes, size_t size, off_t offset)
{
    if (cause != 0 && --left < 0) {
        errno = cause;
        return -1;
    }
    return syscall(SYS_pread64, file, bytes, size, offset);
}

// The database calls it by this name.
extern "C" ssize_t pread64(int file, void* bytes, size_t size, off64_t offset)
{
    return pread(file, bytes, size, offset);
}

namespace dl::testing
{

FailingReads::FailingReads(int good, int error)
{
    left = good;
    cause = error;
}

FailingReads::~FailingReads()
{
    cause = 0;
}

bool FailingReads::Happened() const
{
    return left < 0;
}

}  // namespace dl::testing
