// The dispatcher: takes every message waiting on the input channel, decides per recipient what it
// is, and has it carried out.
//
// A message leaves its channel, in one commit with all that it has brought forth, when all its
// recipients are done; it stays there, and nothing of it is seen, when the call ends early, so that
// it is handled again after a restart. Messages that wait together share the commit. What concerns
// one message only (an unknown list, an unreadable message, a sender that may not post) is answered
// to its sender; faults of the queue, the disk, of memory and of the directory stop the service; a
// message whose address the directory could not look up waits. Logs every step.
#pragma once

#include <functional>
#include <string>

#include "platform/files/files.h"
#include "platform/queue/queue.h"

namespace dl
{

// Handles what waits on `channel`, whose name is `input` ("dl"), putting what it makes on `output`
// ("dlout"). `processed` holds the recipients of the current message that are done; `between` is
// called between two messages. 0 when what waited is handled, 1 to stop the service.
[[nodiscard]] int ProcessQueue(MQContext* channel, const std::string& input,
                               const std::string& output, StringChain* processed,
                               const std::function<void()>& between = {});

}  // namespace dl
