#include "dispatch/dispatcher.h"

#include "dispatch/content_scan.h"
#include "dispatch/deliver.h"
#include "dispatch/list_address.h"
#include "dispatch/posting_policy.h"
#include "dispatch/request_steps.h"
#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "platform/metrics/metrics.h"
#include "requests/bounce.h"
#include "requests/owner_copy.h"

namespace dl
{
namespace
{

// Places of "Breaking main loop at line: %ld"; 0 is "go on".
constexpr long kGoOn = 0;
constexpr long kEnvelopeUnreadable = 210;
constexpr long kForwardOwnerMail = 329;
constexpr long kForwardBlocked = 380;
constexpr long kForwardNonMember = 430;
constexpr long kForwardUnusable = 460;

// A bounce may fail; it has logged.
void Bounce(const Incoming& message, const std::string& reason, const std::string& output,
            bool flag, Metric metric)
{
    if (BounceToSender(message, reason, output, flag) == 0)
        Count(metric);
}

long Forward(const Incoming& message, const std::string& list, const std::string& output,
             int reason, long place)
{
    if (ForwardToOwner(OwnerAddress(list), message, output, reason) == -1)
        return place;
    Count(Metric::kForwarded);
    return kGoOn;
}

long RefuseBlocked(const Incoming& message, const std::string& list, const std::string& output)
{
    const std::string sender = message.Sender();
    const Refusal refusal = RefusalByHandling(ListCache().GetHandlingMethod(list));
    Count(Metric::kRefusedBlocked);
    if (refusal.IsDiscard())
        DlLog(6, "Discard message sent from blocked list member %s to the mailing list %s",
              sender.c_str(), list.c_str());
    if (refusal.bounce) {
        DlLog(6, "Bouncing message sent from blocked list member %s to the mailing list %s...",
              sender.c_str(), list.c_str());
        const std::string reason = FormatText(
            "You are currently blocked from sending e-mail message to the mailing list: \"%s\"\r\n",
            list.c_str());
        Bounce(message, reason, output, false, Metric::kBouncedBlocked);
        DlLog(6, "Done...");
    }
    if (!refusal.forward)
        return kGoOn;
    DlLog(6, "Forwarding message sent from blocked list member %s to the mailing list %s...",
          sender.c_str(), list.c_str());
    const long place = Forward(message, list, output, kBlockedMember, kForwardBlocked);
    if (place == kGoOn)
        DlLog(6, "Done...");
    return place;
}

std::string ClosedListReason(const std::string& list)
{
    return FormatText(
        "\r\nYou are not eligible for sending e-mail message to the mailing list \"%s\"\r\n"
        "until you are registered as a valid list member.\r\n"
        "To subscribe, send a subscription message to: \"%s-request@%s\",\r\n"
        "and put the keyword \"subscribe\" (without the quotes) in the message body.\r\n"
        "Or, put the keyword \"subscribe digest\" in the message body if you prefer to receive "
        "message digest instead.\r\n",
        list.c_str(), list.substr(0, list.rfind('@')).c_str(),
        list.substr(list.rfind('@') + 1).c_str());
}

long RefuseNonMember(const Incoming& message, const std::string& list, const std::string& output)
{
    const std::string sender = message.Sender();
    const Refusal refusal = RefusalByHandling(ListCache().GetHandlingMethod(list));
    Count(Metric::kRefusedNotMember);
    if (refusal.IsDiscard())
        DlLog(6, "Discard message sent from non list member %s to the mailing list %s",
              sender.c_str(), list.c_str());
    if (refusal.bounce) {
        DlLog(6, "Bouncing message sent from non list member %s to the mailing list %s...",
              sender.c_str(), list.c_str());
        Bounce(message, ClosedListReason(list), output, false, Metric::kBouncedNotMember);
        DlLog(6, "Done...");
    }
    if (!refusal.forward)
        return kGoOn;
    DlLog(6, "Forwarding message sent from non list member %s to the mailing list %s...",
          sender.c_str(), list.c_str());
    const long place = Forward(message, list, output, kClosedListPosting, kForwardNonMember);
    if (place == kGoOn)
        DlLog(6, "Done...");
    return place;
}

long HandlePosting(const Incoming& message, const std::string& list, const std::string& output)
{
    Count(Metric::kPostings);
    const std::string sender = message.Sender();
    const bool member = IsListMember(list, sender);
    if (member && ListCache().IsMemberBlocked(list, sender))
        return RefuseBlocked(message, list, output);
    if (!PassContentScan(message, list))
        return kGoOn;
    const int mode = GetListMode(list);
    if (mode == kClosedList)
        DlLog(6, "%s is a closed list", list.c_str());
    switch (AdmitByMode(mode, member)) {
        case Admission::kRefuse:
            return RefuseNonMember(message, list, output);
        case Admission::kForOwner:
            Count(Metric::kRefusedUnusableList);
            return Forward(message, list, output, kForTheOwner, kForwardUnusable);
        case Admission::kDeliver:
            break;
    }
    return DeliverPosting(message, list, output);
}

long HandleOwnerMail(const Incoming& message, const std::string& address, const std::string& output)
{
    if (ForwardToOwner(address, message, output, kForTheOwner) == -1)
        return kForwardOwnerMail;
    Count(Metric::kForwarded);
    DlLog(6, "Message to %s has been forwarded to list-owner", address.c_str());
    return kGoOn;
}

long HandleRecipient(const Incoming& message, const std::string& address, const std::string& output)
{
    (void)ListCache().IsCached(address);  // loads a list that is newer than the last refresh
    const ListAddress target = ClassifyListAddress(address);
    if (!target.found) {
        const std::string reason =
            FormatText("unknown mailing list address: \"%s\"\r\n", OneLine(address).c_str());
        Bounce(message, reason, output, true, Metric::kBouncedUnknownAddress);
        return kGoOn;
    }
    switch (target.kind) {
        case AddressKind::kOwner:
            return HandleOwnerMail(message, address, output);
        case AddressKind::kRequest:
            return HandleRequest(message, address, output);
        case AddressKind::kList:
            break;
    }
    return HandlePosting(message, target.list, output);
}

long HandleMessage(const Incoming& message, const std::string& input, const std::string& output,
                   StringChain* processed)
{
    message.envelope->recipients.cursor = nullptr;
    while (const _envRecip* recipient = message.envelope->recipients.Next()) {
        if (!EqualNoCase(recipient->channel, input))
            continue;
        const std::string address(recipient->address);
        if (processed->Contains(address)) {
            DlLog(5, "Recipient %s has been processed, skip to next one...", address.c_str());
            continue;
        }
        appendString(processed, address);
        DlLog(5, "Processing recipient: %s", address.c_str());
        if (const long place = HandleRecipient(message, address, output))
            return place;
    }
    return kGoOn;
}

int Stop(long place)
{
    DlLog(1, "Breaking main loop at line: %ld", place);
    return 1;
}

}  // namespace

int ProcessQueue(MQContext* channel, const std::string& input, const std::string& output,
                 StringChain* processed)
{
    for (long id = GetFirstMessage(channel, false); id != kNoMessage && id != kQueueFailed;
         id = GetNextMessage(channel, false)) {
        Incoming message{channel, static_cast<unsigned long>(id), nullptr};
        DlLog(6, "Processing message (%lX)", message.id);
        Count(Metric::kMessages);
        EnvelopeResult found = GetMQEnvelope(message.id);
        if (found.failed)
            return Stop(kEnvelopeUnreadable);
        freeStringChain(processed);
        if (found.envelope) {
            message.envelope = found.envelope.get();
            if (const long place = HandleMessage(message, input, output, processed))
                return Stop(place);
        } else {
            LogMessage(1, "DL Manager", "Missing Envelope File");
        }
        // A removal that fails is the queue's to repeat before it hands out anything more. After a
        // stop it would hand this message out again, and it would reach the members twice.
        (void)RemoveMQChannel(channel);
        FreeMQEnvelope(std::move(found.envelope));
        FlushLog();
    }
    return 0;
}

}  // namespace dl
