// Putting one message, read from a stream, into the queue.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "platform/queue/queue.h"

namespace dl
{

struct SubmitJob {
    // "" and "<>" are the null reverse-path (RFC 5321, 4.5.5), and so is "MAILER-DAEMON", which
    // Postfix's pipe gives for it unless it is told otherwise.
    std::string sender;
    std::vector<std::string> recipients;
    std::string channel = kInputChannel;
};

// A line "From SENDER DATE" before the header is left out, line ends become CRLF.
// Exit codes of sysexits.h. 0: stored, and durable; 65: an address cannot be used; 75: try again.
// Says why on standard error.
[[nodiscard]] int SubmitMessage(const SubmitJob& job, std::FILE* in);

}  // namespace dl
