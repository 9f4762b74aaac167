// Faults of the machine: no room, no descriptors, no memory, a disk that fails.
//
// They say nothing about the file or the message at hand, which must neither be blamed nor answered
// for them. Most calls here and in the MIME library report only that something could not be read or
// written; why is noted per thread, so that whoever handles a message can ask afterwards whether
// the machine was at fault while it did. Notes stay until ForgetMachineFault. Nothing here logs.
#pragma once

#include <cerrno>

namespace dl
{

// For who has told the cause itself, as the queue does and whoever loses the directory.
inline constexpr int kToldFault = ECANCELED;

// Whether errno `error` is a fault of the machine, or kToldFault. A missing file, a missing
// permission and a folder where a file should be are not.
[[nodiscard]] bool IsMachineFault(int error);

// Notes errno `error` for this thread when it is a fault of the machine; else does nothing.
void NoteMachineFault(int error);
// The first one noted since ForgetMachineFault; 0: none.
[[nodiscard]] int NotedMachineFault();
void ForgetMachineFault();

}  // namespace dl
