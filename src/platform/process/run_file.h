// The files in the run folder: a pid file whose lock says that its writer lives, and a status file.
//
// The lock is a POSIX record lock: the kernel names its holder, so a stale number in the file
// misleads nobody, and a child after fork does not hold it. It is lost when the process closes any
// descriptor of the file: a process never opens the pid file that it holds.
#pragma once

#include <sys/types.h>

#include <string>

namespace dl::process
{

inline constexpr std::size_t kMaxNameBytes = 64;

// Whether `name` may be the first part of a file name: letters, digits, '-' and '_'.
[[nodiscard]] bool IsProcessName(const char* name);

// "<run folder><name><suffix>" by the configuration of this moment.
[[nodiscard]] std::string RunPath(const char* name, const char* suffix);

// Makes the run folder when only its last component is missing.
void MakeRunFolder();

struct PidFile {
    int file = -1;      // locked; the holder closes it. -1 when it could not be had
    bool held = false;  // by another process
    pid_t holder = 0;   // that one, 0 when it cannot be told
    int error = 0;      // errno when neither
};

// Opens, locks and fills `path`; what a dead process left is taken over.
[[nodiscard]] PidFile TakePidFile(const std::string& path);

// The process that holds `path`; 0 when none does.
[[nodiscard]] pid_t HolderOf(const std::string& path);

// Replaces the text of an open status file by the first line of `status`, at most 255 bytes. Only
// async-signal-safe calls; false with errno when it was not written.
[[nodiscard]] bool WriteStatusLine(int file, const char* status);

// The first line of `path`, empty when there is none.
[[nodiscard]] std::string ReadFirstLine(const std::string& path);

}  // namespace dl::process
