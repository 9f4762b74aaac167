// Running a classifier's program.
//
// Logs the command line and the exit code at level 6, and a program that a signal ended at level 1,
// tag "Bayesian filter". Nothing is left behind: no descriptor, no child, no signal. Any thread; no
// time limit.
#pragma once

#include <string>

#include "antispam/command_line.h"

namespace dl
{

// Not exit codes.
inline constexpr int kFirstPipeFailed = -1;
inline constexpr int kNotStarted = -2;      // the second pipe or the fork failed
inline constexpr int kMessageNotRead = -3;  // the program was to read a message that cannot be read
inline constexpr int kEndedBySignal = -4;

inline constexpr int kCannotExecute = 255;

// Starts the program (no search in PATH) with the message on its input when the command line says
// so, else with an empty input; reads its output, standard error included, to the end and forgets
// it; and waits for it. Its exit code (kCannotExecute when it cannot be executed), or one of the
// above. A program that does not read all of its input is no failure.
[[nodiscard]] int RunCommand(const CommandLine& command, const std::string& message);

}  // namespace dl
