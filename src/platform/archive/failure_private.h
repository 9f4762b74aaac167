// How the archive library fails, for the files of this folder only.
//
// All failures are CDlArchiveExceptions. Those of the machine (files/machine_fault.h) have the
// value kMachine and are noted; they are never held against a posting. What SQLite refuses to keep
// of a posting is a RefusedContent.
#pragma once

#include <string>

#include "platform/archive/archive.h"

namespace dl::archive
{

// The index takes no such row.
struct RefusedContent : CDlArchiveException {
    using CDlArchiveException::CDlArchiveException;
};

// Throws `text` and what errno `error` means; 0: not known.
[[noreturn]] void FailWith(const std::string& text, int error);
// The same with "cannot `what`".
[[noreturn]] void Fail(const std::string& what, int error);

// What faults of the machine come up in this thread while it lives.
class FaultWatch
{
 public:
    FaultWatch();
    ~FaultWatch();
    FaultWatch(const FaultWatch&) = delete;
    FaultWatch& operator=(const FaultWatch&) = delete;

    // Throws when there was one: `what` could not be done for it.
    void FailIfMachine(const std::string& what) const;

 private:
    int before_;
};

}  // namespace dl::archive
