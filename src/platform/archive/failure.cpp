#include <system_error>

#include "platform/archive/failure_private.h"
#include "platform/files/machine_fault.h"

namespace dl::archive
{

void FailWith(const std::string& text, int error)
{
    NoteMachineFault(error);
    throw CDlArchiveException(
        text + (error ? ": " + std::generic_category().message(error) : ""),
        IsMachineFault(error) ? ArchiveFault::kMachine : ArchiveFault::kOther);
}

void Fail(const std::string& what, int error)
{
    FailWith("cannot " + what, error);
}

FaultWatch::FaultWatch() : before_(NotedMachineFault())
{
    ForgetMachineFault();
}

// The first one noted counts for those who watch from outside.
FaultWatch::~FaultWatch()
{
    if (before_ == 0)
        return;
    ForgetMachineFault();
    NoteMachineFault(before_);
}

void FaultWatch::FailIfMachine(const std::string& what) const
{
    if (const int error = NotedMachineFault())
        Fail(what, error);
}

}  // namespace dl::archive
