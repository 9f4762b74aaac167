#include "tools/dlsubmit/intake_entry.h"

#include <cerrno>
#include <system_error>

#include "platform/log/format.h"
#include "platform/log/log.h"

namespace dl
{

LmtpOutcome IntakeEntry::Open()
{
    entry_.emplace();
    if (!*entry_)
        return LmtpOutcome::kFailed;
    file_.emplace(GetMQPathName(entry_->get(), ".msg"), "wb");
    return file_->IsOpen() ? LmtpOutcome::kStored : CannotWrite();
}

LmtpOutcome IntakeEntry::Write(std::string_view text)
{
    errno = 0;
    return file_->Write(text) ? LmtpOutcome::kStored : CannotWrite();
}

LmtpOutcome IntakeEntry::Address(const std::string& sender, const AddressList& recipients,
                                 const std::string& channel)
{
    errno = 0;
    if (!file_->Close())
        return CannotWrite();
    // The texts outlive the envelope, so it views them.
    stEnvelope envelope;
    _envFrom from;
    from.address = sender.empty() ? std::string_view("<>") : std::string_view(sender);
    from.channel = channel;
    bool done = envelope.AddSender(from);
    for (std::size_t i = 0; done && i < recipients.Size(); ++i) {
        _envRecip to;
        to.address = recipients.At(i);
        to.channel = channel;
        done = envelope.AddRecipient(to);
    }
    done = done && InsertMQChannel(entry_->get(), channel, 0) &&
           PutMQEnvelope(entry_->get(), &envelope);
    return done ? LmtpOutcome::kStored : LmtpOutcome::kFailed;
}

LmtpOutcome IntakeEntry::CannotWrite()
{
    const int error = errno;
    const bool full = error == ENOSPC || error == EDQUOT || error == EFBIG;
    const std::string cause = full         ? "the disk is full"
                              : error == 0 ? "an earlier failure"
                                           : std::generic_category().message(error);
    LogMessage(1, "DL Intake",
               FormatText("Message %08lX cannot be written: %s", Id(), cause.c_str()).c_str());
    return full ? LmtpOutcome::kNoSpace : LmtpOutcome::kFailed;
}

}  // namespace dl
