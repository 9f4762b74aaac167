// Process information: who runs under a name, and the signals that reach it.
//
// InitProcessInfo writes "<name>.pid" (decimal, locked for the life of the process) and
// "<name>.status" into the folder Process/RunDir of "qvms.conf" (default /run/dlmanager) and
// installs the handler for SIGINT, SIGTERM and SIGUSR1. A second start under the same name is
// refused while the first lives; the files of a process that died are taken over.
// WriteProcessStatus is safe in a signal handler: it uses only async-signal-safe calls on a file
// opened before. When the files cannot be written the handler is installed all the same. A name is
// letters, digits, '-' and '_'; one name per process. Main thread only, but for the handler.
#pragma once

#include <string>

namespace dl
{

using SignalFunction = int (*)(int signal);

enum class Registration {
    kDone,
    kAlreadyRunning,  // another process holds the name
    kFailed,          // the folder or its files cannot be written
};

struct ProcessInfo {
    Registration result = Registration::kFailed;
    std::string reason;  // one line for the log when not kDone
};

[[nodiscard]] ProcessInfo InitProcessInfo(const char* name, SignalFunction handler);

// Replaces the status text by the first line of `status`, at most 255 bytes. Returns 0, or -1 when
// it could not be written.
int WriteProcessStatus(const char* name, const char* status);

// Removes both files and the name's claim, unless another process holds it. The signals
// are ignored from then on: a process that ends in good order is not ended twice.
void RemoveProcessInfo(const char* name);

// Opens /dev/null for each standard stream that the caller has closed, so that no other file gets
// its number: a queue file would be written into by whoever prints. Before anything is opened;
// reading such a standard input fails.
void HoldStandardStreams();

// Sends `state` to systemd as it stands ("READY=1", "STOPPING=1") when NOTIFY_SOCKET is set.
void NotifyServiceManager(const char* state);

// For tools: the process id that runs under `name`, 0 when none does; and its status text, empty
// when none does.
[[nodiscard]] long RunningProcess(const char* name);
[[nodiscard]] std::string ProcessStatus(const char* name);

}  // namespace dl
