#include "tools/dlsubmit/submit_message.h"

#include <sysexits.h>

#include <string_view>
#include <utility>

#include "platform/address/address.h"
#include "platform/address/message_id.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "platform/metrics/metrics.h"
#include "platform/queue/queue.h"
#include "tools/dlsubmit/intake_log.h"

namespace dl
{
namespace
{

constexpr std::size_t kBlock = 65536;
constexpr std::int64_t kRoomStep = 1 << 20;  // each so many bytes the queue's room is looked at
constexpr char kDiskFull[] = "the disk of the queue is full";
constexpr char kCannotStore[] = "the message cannot be stored";

bool IsNullSender(const std::string& sender)
{
    return sender.empty() || sender == "<>" || sender == "MAILER-DAEMON";
}

// The address without angle brackets; empty when it cannot be used.
std::string Usable(const std::string& address)
{
    RT parsed;
    const bool usable = RecipParse(address, &parsed, 1) == 1;
    return usable ? parsed.addresses[0].full : "";
}

// The bytes of the line "From SENDER DATE" that mail servers put before what they hand to a
// program, as in a mailbox file; 0 when the message begins with its header. "From : a@b" is a
// header field.
std::size_t MailboxLineSize(std::string_view text)
{
    const std::size_t end = text.find('\n');
    const std::size_t word = text.find_first_not_of(" \t", 5);
    const bool is_one = text.starts_with("From ") && end != std::string_view::npos &&
                        word != std::string_view::npos && text[word] != ':';
    return is_one ? end + 1 : 0;
}

// Copies the message, each line end as CRLF, with the CRs before it; any others become a blank, as
// in the text of LMTP. Why it cannot be read or written whole; null when it was.
const char* CopyMessage(std::FILE* in, FileWriter* out, MessageIdFinder* message_id)
{
    std::string block(kBlock, '\0');
    std::string text;
    bool cr = false;  // some were read that are not written yet
    bool begins = true;
    std::int64_t room_for = kRoomStep;
    for (;;) {
        const std::size_t got = std::fread(block.data(), 1, block.size(), in);
        if (got == 0)
            break;
        text.clear();
        std::string_view piece = std::string_view(block).substr(0, got);
        if (std::exchange(begins, false))
            piece.remove_prefix(MailboxLineSize(piece));
        for (const char c : piece) {
            if (c == '\n')
                text += '\r';
            else if (cr && c != '\r')
                text += ' ';
            if (c != '\r')
                text += c;
            cr = c == '\r';
        }
        message_id->Read(text);
        if (out->Written() > room_for) {
            if (!HasMQRoomFor(kRoomStep))
                return kDiskFull;
            room_for += kRoomStep;
        }
        if (!out->Write(text))
            return kCannotStore;
    }
    return std::ferror(in) == 0 && out->Close() ? nullptr : kCannotStore;
}

int TryAgain(const char* what)
{
    std::fprintf(stderr, "dlsubmit: %s\n", what);
    Count(Metric::kIntakeRefusedForNow);
    return EX_TEMPFAIL;
}

}  // namespace

int SubmitMessage(const SubmitJob& job, std::FILE* in)
{
    const bool counting = OpenMetrics(QueuePath(), "dlsubmit");
    stEnvelope envelope;
    _envFrom from;
    from.address = IsNullSender(job.sender) ? "<>" : envelope.Text(Usable(job.sender));
    from.channel = job.channel;
    bool usable = !from.address.empty() && envelope.AddSender(from);
    std::string unusable = usable ? "" : job.sender;
    for (const std::string& recipient : job.recipients) {
        _envRecip to;
        to.address = envelope.Text(Usable(recipient));
        to.channel = job.channel;
        if (to.address.empty() || !envelope.AddRecipient(to)) {
            usable = false;
            unusable = recipient;
        }
    }
    if (!usable) {
        std::fprintf(stderr, "dlsubmit: not a usable address: \"%s\"\n",
                     EscapeForLog(unusable.c_str()).c_str());
        Count(Metric::kIntakeRefused);
        return EX_DATAERR;
    }
    if (!MQInitBriefly("dlsubmit"))
        return TryAgain("the queue cannot be opened");
    if (!counting)
        (void)OpenMetrics(QueuePath(), "dlsubmit");  // a new queue; the message goes in without too
    if (!HasMQRoomFor(0))
        return TryAgain(kDiskFull);
    NewMQEntry entry;
    if (!entry)
        return TryAgain("no queue entry can be made");
    const unsigned long id = GetMQId(entry.get());
    MessageIdFinder message_id;
    std::int64_t bytes = 0;
    {
        FileWriter out(GetMQPathName(entry.get(), ".msg"), "wb");
        const char* problem = out.IsOpen() ? CopyMessage(in, &out, &message_id) : kCannotStore;
        if (problem)
            return TryAgain(problem);
        bytes = out.Written();
    }
    if (Submit(std::move(entry), job.channel, 0, &envelope) != Submission::kDone)
        return TryAgain("the message cannot be put into the queue");
    Count(Metric::kIntakeAccepted);
    Count(Metric::kIntakeRecipients, job.recipients.size());
    NotePipedMessage(FormatText(
        "Message %08lX from <%s> for %zu recipients, %lld bytes, taken in by pipe, Message-ID %s",
        id, job.sender.c_str(), job.recipients.size(), static_cast<long long>(bytes),
        message_id.Text().c_str()));
    return EX_OK;
}

}  // namespace dl
