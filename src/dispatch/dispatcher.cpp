#include "dispatch/dispatcher.h"

#include <algorithm>
#include <cstring>

#include "dispatch/content_scan.h"
#include "dispatch/deliver.h"
#include "dispatch/list_address.h"
#include "dispatch/message_work.h"
#include "dispatch/posting_policy.h"
#include "dispatch/request_steps.h"
#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/clock/clock.h"
#include "platform/files/machine_fault.h"
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
constexpr long kBounceUnknown = 220;
constexpr long kForwardOwnerMail = 329;
constexpr long kBounceBlocked = 370;
constexpr long kForwardBlocked = 380;
constexpr long kBounceNonMember = 420;
constexpr long kForwardNonMember = 430;
constexpr long kForwardUnusable = 460;
constexpr long kCommitFailed = 620;
constexpr long kMachineFault = 640;
// Not a place: the message waits for the directory.
constexpr long kWait = -1;

constexpr int kMostDoublings = 6;  // of a second, while a message waits

struct Bounced {
    Metric metric;
    long place;
    bool flag = false;
};

// A message that can be neither delivered nor answered stays.
long Bounce(const Handling& it, const std::string& reason, const Bounced& how)
{
    if (BounceToSender(it.message, reason, it.output, how.flag) != 0)
        return how.place;
    Count(how.metric);
    return kGoOn;
}

long Forward(const Handling& it, const std::string& list, int reason, long place)
{
    if (ForwardToOwner(OwnerAddress(list), it.message, it.output, reason) == -1)
        return place;
    Count(Metric::kForwarded);
    return kGoOn;
}

long RefuseBlocked(const Handling& it, const std::string& list)
{
    const std::string sender = it.message.Sender();
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
        if (const long place = Bounce(it, reason, {Metric::kBouncedBlocked, kBounceBlocked}))
            return place;
        DlLog(6, "Done...");
    }
    if (!refusal.forward)
        return kGoOn;
    DlLog(6, "Forwarding message sent from blocked list member %s to the mailing list %s...",
          sender.c_str(), list.c_str());
    const long place = Forward(it, list, kBlockedMember, kForwardBlocked);
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

long RefuseNonMember(const Handling& it, const std::string& list)
{
    const std::string sender = it.message.Sender();
    const Refusal refusal = RefusalByHandling(ListCache().GetHandlingMethod(list));
    Count(Metric::kRefusedNotMember);
    if (refusal.IsDiscard())
        DlLog(6, "Discard message sent from non list member %s to the mailing list %s",
              sender.c_str(), list.c_str());
    if (refusal.bounce) {
        DlLog(6, "Bouncing message sent from non list member %s to the mailing list %s...",
              sender.c_str(), list.c_str());
        const Bounced how{Metric::kBouncedNotMember, kBounceNonMember};
        if (const long place = Bounce(it, ClosedListReason(list), how))
            return place;
        DlLog(6, "Done...");
    }
    if (!refusal.forward)
        return kGoOn;
    DlLog(6, "Forwarding message sent from non list member %s to the mailing list %s...",
          sender.c_str(), list.c_str());
    const long place = Forward(it, list, kClosedListPosting, kForwardNonMember);
    if (place == kGoOn)
        DlLog(6, "Done...");
    return place;
}

long HandlePosting(const Handling& it, const std::string& list)
{
    Count(Metric::kPostings);
    const std::string sender = it.message.Sender();
    const bool member = IsListMember(list, sender);
    if (member && ListCache().IsMemberBlocked(list, sender))
        return RefuseBlocked(it, list);
    const ScanResult scan = ScanContent(it.message, list);
    if (scan != ScanResult::kPassed)
        return scan == ScanResult::kWait ? kWait : kGoOn;
    const int mode = GetListMode(list);
    if (mode == kClosedList)
        DlLog(6, "%s is a closed list", list.c_str());
    switch (AdmitByMode(mode, member)) {
        case Admission::kRefuse:
            return RefuseNonMember(it, list);
        case Admission::kForOwner:
            Count(Metric::kRefusedUnusableList);
            return Forward(it, list, kForTheOwner, kForwardUnusable);
        case Admission::kDeliver:
            break;
    }
    return DeliverPosting(it, list);
}

long HandleOwnerMail(const Handling& it, const std::string& address)
{
    if (ForwardToOwner(address, it.message, it.output, kForTheOwner) == -1)
        return kForwardOwnerMail;
    Count(Metric::kForwarded);
    DlLog(6, "Message to %s has been forwarded to list-owner", address.c_str());
    return kGoOn;
}

long HandleUnknown(const Handling& it, const std::string& address)
{
    // Nobody is told so by a directory that did not answer.
    if (ListCache().LookUpFailed())
        return kWait;
    const std::string reason =
        FormatText("unknown mailing list address: \"%s\"\r\n", OneLine(address).c_str());
    return Bounce(it, reason, {Metric::kBouncedUnknownAddress, kBounceUnknown, true});
}

long HandleRecipient(const Handling& it, const std::string& address)
{
    (void)ListCache().IsCached(address);  // loads a list that is newer than the last refresh
    const ListAddress target = ClassifyListAddress(address);
    if (!target.found)
        return HandleUnknown(it, address);
    switch (target.kind) {
        case AddressKind::kOwner:
            return HandleOwnerMail(it, address);
        case AddressKind::kRequest:
            return HandleRequest(it, address);
        case AddressKind::kList:
            break;
    }
    return HandlePosting(it, target.list);
}

// What a step could not do because of the machine it may have taken for the message's fault, and
// answered: such answers are dropped with all that was made.
long MachinePlace()
{
    return NotedMachineFault() == 0 ? kGoOn : kMachineFault;
}

long HandleMessage(const Handling& it, const std::string& input, StringChain* processed)
{
    ForgetMachineFault();
    it.message.envelope->recipients.cursor = nullptr;
    while (const _envRecip* recipient = it.message.envelope->recipients.Next()) {
        if (!EqualNoCase(recipient->channel, input))
            continue;
        const std::string address(recipient->address);
        if (processed->Contains(address)) {
            DlLog(5, "Recipient %s has been processed, skip to next one...", address.c_str());
            continue;
        }
        appendString(processed, address);
        DlLog(5, "Processing recipient: %s", address.c_str());
        if (const long place = HandleRecipient(it, address))
            return place;
        if (const long place = MachinePlace())
            return place;
    }
    return kGoOn;
}

// Seconds that a message waits for its next try: one, two, four, ... a minute.
std::int64_t WaitingTime(unsigned long id)
{
    std::vector<QueueItem> items;
    const int tries =
        FindMQ(id, &items) && !items.empty() ? items.front().tries + items.front().attempts : 0;
    return std::min(std::int64_t{1} << std::min(tries, kMostDoublings), kLongestPostponement);
}

int Stop(long place)
{
    DlLog(1, "Breaking main loop at line: %ld", place);
    return 1;
}

// The pass over a channel, message by message.
class Pass
{
 public:
    Pass(MQContext* channel, const std::string& input, const std::string& output,
         StringChain* processed)
        : channel_(channel), input_(input), output_(output), processed_(processed), work_(channel)
    {
    }

    // 0 to go on with the next message, else the place at which to stop.
    long Handle(unsigned long id)
    {
        const bool alone = IsSuspectMessage(channel_);
        if ((alone || work_.Full()) && !work_.Commit())
            return kCommitFailed;
        Incoming message{channel_, id, nullptr};
        DlLog(6, "Processing message (%lX)", message.id);
        Count(Metric::kMessages);
        const EnvelopeResult found = GetMQEnvelope(message.id);
        if (found.failed)
            return GiveUp(kEnvelopeUnreadable, message, found.damaged);
        freeStringChain(processed_);
        message.envelope = found.envelope.get();
        long place = message.envelope ? HandleMessage({message, output_, work_}, input_, processed_)
                                      : Missing();
        // The directory does not tell whose mail it is: that holds up nobody else.
        if (place != kGoOn && NotedMachineFault() == 0 && ListCache().LookUpFailed())
            place = kWait;
        if (place != kGoOn && place != kWait)
            return GiveUp(place, message, OnlyTheMessage());
        if (place == kWait)
            Wait(message);
        else
            work_.Done(message.envelope ? message.envelope->recipients.count : 0);
        return alone && !work_.Commit() ? kCommitFailed : kGoOn;
    }

    long End() { return work_.Commit() ? kGoOn : kCommitFailed; }

 private:
    static long Missing()
    {
        LogMessage(1, "DL Manager", "Missing Envelope File");
        return kGoOn;
    }

    void Wait(const Incoming& message)
    {
        const std::int64_t seconds = WaitingTime(message.id);
        DlLog(5, "Message %08lX waits %lld s for the directory", message.id,
              static_cast<long long>(seconds));
        work_.Postpone(Now() + seconds, "the directory does not answer");
    }

    // The message stays; those before it are committed. It counts an attempt when neither the
    // machine nor the directory was at fault, and the service goes on without it: one mail must not
    // stop it. 0 to go on, else the place.
    long GiveUp(long place, const Incoming& message, bool own_fault)
    {
        const int fault = NotedMachineFault();
        const bool committed = work_.Commit();
        work_.Drop();
        if (!committed)
            return kCommitFailed;
        if (fault != 0 && fault != kToldFault)
            DlLog(1, "Message %08lX stays in the queue: %s", message.id, std::strerror(fault));
        if (!own_fault)
            return place;
        const std::int64_t seconds = WaitingTime(message.id);
        const bool stop = IsMemoryPlace(place);
        if (!stop)
            DlLog(1, "Message %08lX cannot be handled (%ld), next attempt in %lld s", message.id,
                  place, static_cast<long long>(seconds));
        (void)BlameMQMessage(channel_, stop ? 0 : Now() + seconds);
        return stop ? place : kGoOn;
    }

    static bool OnlyTheMessage() { return NotedMachineFault() == 0; }

    MQContext* channel_;
    const std::string& input_;
    const std::string& output_;
    StringChain* processed_;
    MessageWork work_;
};

}  // namespace

int ProcessQueue(MQContext* channel, const std::string& input, const std::string& output,
                 StringChain* processed, const std::function<void()>& between)
{
    Pass pass(channel, input, output, processed);
    for (long id = GetFirstMessage(channel, false); id != kNoMessage && id != kQueueFailed;
         id = GetNextMessage(channel, false)) {
        if (const long place = pass.Handle(static_cast<unsigned long>(id)))
            return Stop(place);
        if (between)
            between();
        FlushLog();
    }
    if (const long place = pass.End())
        return Stop(place);
    FlushLog();
    return 0;
}

}  // namespace dl
