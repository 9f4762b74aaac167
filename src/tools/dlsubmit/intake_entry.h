// The queue entry into which one message is taken in: made, filled piece by piece, addressed.
//
// The owner gives the finished entry to CloseMQEntries, which may take several; an entry that did
// not get that far is discarded with the object. Logs at level 1 what the queue does not log.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/files/files.h"
#include "platform/queue/queue.h"
#include "tools/dlsubmit/lmtp_session.h"

namespace dl
{

class IntakeEntry
{
 public:
    // Each step gives kStored, or the answer for the client: then the object is of no use any more.
    [[nodiscard]] LmtpOutcome Open();
    [[nodiscard]] LmtpOutcome Write(std::string_view text);
    // The text is complete. `sender` empty: the null reverse-path.
    [[nodiscard]] LmtpOutcome Address(const std::string& sender, const AddressList& recipients,
                                      const std::string& channel);

    [[nodiscard]] unsigned long Id() const { return GetMQId(entry_->get()); }
    [[nodiscard]] MQContext* Release() { return entry_->Release(); }

 private:
    LmtpOutcome CannotWrite();
    std::optional<NewMQEntry> entry_;
    std::optional<FileWriter> file_;
};

}  // namespace dl
