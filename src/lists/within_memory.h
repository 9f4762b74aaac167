// What an operation of the cache does when memory runs out in it.
#pragma once

#include <new>

namespace dl
{

// The result of `deed`; when memory runs out in it, what it had taken is given back, then
// `complain` may log, and the result is `failed`.
template <typename Result, typename Deed, typename Complain>
Result WithinMemory(Result failed, const Deed& deed, const Complain& complain)
{
    try {
        return deed();
    } catch (const std::bad_alloc&) {
        try {
            complain();
        } catch (const std::bad_alloc&) {
            return failed;  // not even a line of the log has room
        }
        return failed;
    }
}

}  // namespace dl
