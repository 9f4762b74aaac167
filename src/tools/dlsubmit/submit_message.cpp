#include "tools/dlsubmit/submit_message.h"

#include <sysexits.h>

#include <utility>

#include "platform/address/address.h"
#include "platform/files/files.h"
#include "platform/log/log.h"
#include "platform/queue/queue.h"

namespace dl
{
namespace
{

constexpr std::size_t kBlock = 65536;

bool IsNullSender(const std::string& sender)
{
    return sender.empty() || sender == "<>";
}

// The address without angle brackets; empty when it cannot be used.
std::string Usable(const std::string& address)
{
    RT parsed;
    const bool usable = RecipParse(address, &parsed, 1) == 1;
    return usable ? parsed.addresses[0].full : "";
}

// Copies the message, each line end as CRLF. False when it cannot be read or written whole.
bool CopyMessage(std::FILE* in, FileWriter* out)
{
    std::string block(kBlock, '\0');
    std::string text;
    char last = '\0';
    for (;;) {
        const std::size_t got = std::fread(block.data(), 1, block.size(), in);
        if (got == 0)
            break;
        text.clear();
        for (std::size_t i = 0; i < got; ++i) {
            if (block[i] == '\n' && last != '\r')
                text += '\r';
            text += last = block[i];
        }
        if (!out->Write(text))
            return false;
    }
    return std::ferror(in) == 0 && out->Close();
}

int TryAgain(const char* what)
{
    std::fprintf(stderr, "dlsubmit: %s\n", what);
    return EX_TEMPFAIL;
}

}  // namespace

int SubmitMessage(const SubmitJob& job, std::FILE* in)
{
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
        return EX_DATAERR;
    }
    if (!MQInit("", "dlsubmit"))
        return TryAgain("the queue cannot be opened");
    NewMQEntry entry;
    if (!entry)
        return TryAgain("no queue entry can be made");
    {
        FileWriter out(GetMQPathName(entry.get(), ".msg"), "wb");
        if (!out.IsOpen() || !CopyMessage(in, &out))
            return TryAgain("the message cannot be stored");
    }
    if (Submit(std::move(entry), job.channel, 0, &envelope) != Submission::kDone)
        return TryAgain("the message cannot be put into the queue");
    return EX_OK;
}

}  // namespace dl
