#include "tests/support/peak_memory.h"

#ifdef __SANITIZE_ADDRESS__

#include <atomic>
#include <cstddef>

// Of the sanitizer's runtime; not every compiler brings its header.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*allocated)(const volatile void*,
                                                                           std::size_t),
                                                         void (*freed)(const volatile void*));
extern "C" std::size_t __sanitizer_get_allocated_size(const volatile void* memory);

namespace dl::testing
{
namespace
{

std::atomic<std::int64_t> in_use{0};
std::atomic<std::int64_t> peak{0};

void Allocated(const volatile void*, std::size_t size)
{
    const std::int64_t now = in_use += static_cast<std::int64_t>(size);
    std::int64_t before = peak;
    while (now > before && !peak.compare_exchange_weak(before, now)) {
    }
}

void Freed(const volatile void* memory)
{
    in_use -= static_cast<std::int64_t>(__sanitizer_get_allocated_size(memory));
}

}  // namespace

PeakMemory::PeakMemory()
{
    static const int kInstalled = __sanitizer_install_malloc_and_free_hooks(Allocated, Freed);
    (void)kInstalled;
    before_ = in_use;
    peak = before_;
}

std::int64_t PeakMemory::Bytes() const
{
    return peak - before_;
}

}  // namespace dl::testing

#else

#include <malloc.h>

#include <fstream>
#include <string>

namespace dl::testing
{
namespace
{

// A line of the process's status, in bytes.
std::int64_t Status(const std::string& name)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(name))
            return std::stoll(line.substr(name.size())) * 1024;
    return 0;
}

}  // namespace

PeakMemory::PeakMemory()
{
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5";  // begins a new peak
    before_ = Status("VmRSS:");
}

std::int64_t PeakMemory::Bytes() const
{
    return Status("VmHWM:") - before_;
}

}  // namespace dl::testing

#endif
