// Where the intake writes its log lines.
#pragma once

#include <string>

#include "platform/log/log.h"

namespace dl
{

// The settings of section "Log", with the file Intake/LogFile: one process writes a file that is
// rotated, and the server's lies beside the service's.
[[nodiscard]] LogSettings IntakeLog();

// One level 3 line of a message that was taken in by pipe, into syslog or, in turn with others that
// do the same, into "dlsubmit-pipe.log" beside the intake's file; nowhere when the log is standard
// error, which an MTA would read as a complaint. The message is stored: what cannot be written is
// left out.
void NotePipedMessage(const std::string& text);

}  // namespace dl
