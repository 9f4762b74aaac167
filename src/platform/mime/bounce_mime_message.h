// BounceMimeMessage: tells a sender that a message of theirs was refused.
//
// The answer is a delivery status report (RFC 3464 in the multipart/report of RFC 6522): a text for
// people, the status for programs, and the header of the refused message. It goes out through the
// queue, with the null sender, so that no report answers a report. Each that was queued is logged
// here, and nowhere else, with the delivery record of level 3 "Bounced %s size: %ld bytes to:
// <%s>", tag "DL Manager"; what failed is the caller's line. Whatever comes from mail or the
// directory is kept out of the report's own structure. Main thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace dl
{

struct BounceDescription {
    std::string recipient;  // who is told: the envelope sender of the refused message
    std::string type;       // "DSN", the only one there is
    std::int32_t flag = 0;  // flag word of the report's envelope sender
    std::string text;       // the envelope's two further texts, empty
    std::string text2;
    std::string refused;  // the address that refused the message; the Final-Recipient
};

// Puts a report on the message `base_path` + ".msg" into channel "dlout". 0 when it is queued. -1,
// and nothing is queued, when there is nobody to tell (`recipient` is empty or "<>", or no
// address), the type is another, the refused message cannot be read, or the queue failed.
[[nodiscard]] int BounceMimeMessage(const std::string& base_path,
                                    const BounceDescription& description,
                                    const std::vector<std::string>& reasons);

}  // namespace dl
