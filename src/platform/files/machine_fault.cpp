#include "platform/files/machine_fault.h"

namespace dl
{
namespace
{

thread_local int noted = 0;

}  // namespace

bool IsMachineFault(int error)
{
    switch (error) {
        case EMFILE:
        case ENFILE:
        case EIO:
        case ENOMEM:
        case ENOSPC:
        case EDQUOT:
        case EROFS:
        case EFBIG:  // a limit on the size of files, as a full disk
        case ESTALE:
        case ENXIO:
        case ENODEV:
        case kToldFault:
            return true;
        default:
            return false;
    }
}

void NoteMachineFault(int error)
{
    if (noted == 0 && IsMachineFault(error))
        noted = error;
}

int NotedMachineFault()
{
    return noted;
}

void ForgetMachineFault()
{
    noted = 0;
}

}  // namespace dl
