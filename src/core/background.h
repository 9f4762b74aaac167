// Going into the background: the fork, what the caller is told of it, and the terminal that it
// leaves.
//
// The first process waits until the second has told it whether it may run at all, so that a second
// start has an exit status; it does not wait for the directory or the queue, which the log tells
// of. Main thread only.
#pragma once

#include <string>

namespace dl
{

// Forks. 0 in the child, which leads a session of its own; -1 when that cannot be done. The parent
// does not return: it exits with 0 when TellStarted came without a reason, else with 1 after it has
// said on standard error why.
[[nodiscard]] int RunInBackground();

// Tells the parent that the service runs, or in one line why it cannot. Once, in the child.
void TellStarted(const std::string& reason);

// Puts the standard streams on /dev/null, so that nobody waits for their end: who has started the
// service by a pipe, or a terminal that is to be closed. `keep_stderr`: the log goes there.
void LeaveStandardStreams(bool keep_stderr);

}  // namespace dl
