// An operator new that fails where a test wants it to; for the whole program that links it.
#pragma once

namespace dl::testing
{

// From now on so many allocations are made and the next one fails; with `all`, every later one,
// too.
void FailAllocation(long after, bool all);
// None fails any more. Whether one has since FailAllocation.
bool EndFailingAllocations();

}  // namespace dl::testing
