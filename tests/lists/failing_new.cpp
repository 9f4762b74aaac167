#include "tests/lists/failing_new.h"

#include <cstdlib>
#include <new>

namespace
{

bool armed = false;
bool failed = false;
bool fails_on = false;
long left = 0;

bool Fails()
{
    if (!armed || (failed && !fails_on) || left-- > 0)
        return false;
    failed = true;
    return true;
}

}  // namespace

namespace dl::testing
{

void FailAllocation(long after, bool all)
{
    left = after;
    fails_on = all;
    failed = false;
    armed = true;
}

bool EndFailingAllocations()
{
    armed = false;
    return failed;
}

}  // namespace dl::testing

void* operator new(std::size_t size)
{
    void* memory = Fails() ? nullptr : std::malloc(size);
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
