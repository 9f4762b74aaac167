// "dlsubmit --lmtp": the intake as a process, from the sockets to SIGTERM.
#pragma once

#include <string>
#include <vector>

namespace dl
{

// Listens on all of `listen`, becomes user Intake/User when started as root, opens log and queue,
// and serves until SIGTERM or SIGINT. Reads section "Intake" of "qvms.conf" once, at start. Exit
// codes of sysexits.h; says why on standard error and in the log.
[[nodiscard]] int RunLmtpIntake(const std::vector<std::string>& listen, const std::string& channel);

}  // namespace dl
