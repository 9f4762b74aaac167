// The dispatcher: takes every message waiting on the input channel, decides per recipient what it
// is, and has it carried out.
//
// A message leaves its channel when all its recipients are done, and stays there when the call ends
// early, so that it is handled again after a restart. What concerns one message only (an unknown
// list, an unreadable message, a sender that may not post) is answered to its sender; faults of the
// queue, of memory and of the directory stop the service. Logs every step.
#pragma once

#include <string>

#include "platform/files/files.h"
#include "platform/queue/queue.h"

namespace dl
{

// Handles what waits on `channel`, whose name is `input` ("dl"), putting what it makes on `output`
// ("dlout"). `processed` holds the recipients of the current message that are done. 0 when the
// channel is empty, 1 to stop the service.
[[nodiscard]] int ProcessQueue(MQContext* channel, const std::string& input,
                               const std::string& output, StringChain* processed);

}  // namespace dl
