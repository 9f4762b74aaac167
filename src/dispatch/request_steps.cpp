#include "dispatch/request_steps.h"

#include "dispatch/list_address.h"
#include "lists/dllist.h"
#include "platform/files/machine_fault.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "platform/metrics/metrics.h"
#include "requests/bounce.h"
#include "requests/commands.h"
#include "requests/confirmations.h"
#include "requests/membership.h"
#include "requests/notifications.h"
#include "requests/owner_copy.h"

namespace dl
{
namespace
{

// Places of "Breaking main loop at line: %ld"; 0 is "go on".
constexpr long kGoOn = 0;
constexpr long kForwardReply = 240;
constexpr long kArchiveNotice = 250;
constexpr long kConfirmedAdd = 260;
constexpr long kConfirmedAddNotice = 262;
constexpr long kConfirmedRemove = 270;
constexpr long kConfirmedRemoveNotice = 272;
constexpr long kNotRead = 298;
constexpr long kBounceCommand = 300;
constexpr long kForwardCommand = 305;
constexpr long kRequestedAdd = 310;
constexpr long kRequestedAddNotice = 312;
constexpr long kNoConfirmation = 315;

struct AddPlaces {
    long add;
    long notice;
};

long AddAndNotify(const Handling& it, const std::string& list, bool digest,
                  PendingConfirmation* pending, const AddPlaces& places)
{
    const int added =
        AddListMember(it.message, it.message.Sender(), list, it.output, digest, pending);
    if (added == -1)
        return places.add;
    return NotifySubscription(it.message, list, it.output, added) == -1 ? places.notice : kGoOn;
}

long CarryOut(const Handling& it, const std::string& list, ConfirmationReply& reply)
{
    const std::string sender = it.message.Sender();
    const ConfirmationKind& kind = reply.kind;
    Count(kind.archive     ? Metric::kConfirmedArchive
          : kind.subscribe ? Metric::kConfirmedSubscribe
                           : Metric::kConfirmedUnsubscribe);
    if (kind.archive) {
        DlLog(6, "Received archive authentication confirm message from %s for mailing list %s",
              sender.c_str(), list.c_str());
        return NotifyArchiveRegistration(it.message, list, it.output, 0) == -1 ? kArchiveNotice
                                                                               : kGoOn;
    }
    if (kind.subscribe) {
        DlLog(6, "Received subscription confirm message from %s for mailing list %s",
              sender.c_str(), list.c_str());
        return AddAndNotify(it, list, kind.digest, &reply.pending,
                            {kConfirmedAdd, kConfirmedAddNotice});
    }
    DlLog(6, "Received unsubscription confirm message from %s for mailing list %s", sender.c_str(),
          list.c_str());
    const int removed = RemoveListMember(it.message, sender, list, it.output);
    if (removed == -1)
        return kConfirmedRemove;
    return NotifyUnsubscription(it.message, list, it.output, removed) == -1 ? kConfirmedRemoveNotice
                                                                            : kGoOn;
}

// For a request whose list's address cannot be formed: a person may know what to do with it.
long ForwardWhole(const Handling& it, const std::string& request_address, long place)
{
    return ForwardToOwner(request_address, it.message, it.output, kForTheOwner) == -1 ? place
                                                                                      : kGoOn;
}

long BounceUnknownCommand(const Handling& it, const std::string& request_address)
{
    DlLog(1, "Received unknown message type to %s", request_address.c_str());
    DlLog(1, "Message is bounced to the original sender");
    const std::string reason = FormatText(
        "\r\nYou have sent an unknown command to the list request address \"%s\"\r\n\r\n"
        "To subscribe, send a subscription message to: \"%s\",\r\n"
        "and put the keyword \"subscribe\" (without the quotes) in the message body.\r\n"
        "Or, put the keyword \"subscribe digest\" in the message body if you prefer to receive "
        "message digest instead.\r\n\r\n"
        "To remove your subscription, put the keyword \"unsubscribe\" in the message body.\r\n",
        request_address.c_str(), request_address.c_str());
    if (BounceToSender(it.message, reason, it.output, false) != 0)
        return kBounceCommand;
    Count(Metric::kBouncedUnknownCommand);
    return kGoOn;
}

// A request that cannot be asked back, because the list has no folder, leaves no answer: the
// requester may ask again. What the machine could not do is done later.
long Confirm(const Handling& it, const std::string& request_address, const ConfirmationKind& kind)
{
    const bool sent = SendConfirmationRequest(it.message, request_address, it.output, kind) == 0;
    const bool later = NotedMachineFault() != 0 || ListCache().LookUpFailed();
    return sent || !later ? kGoOn : kNoConfirmation;
}

long HandleSubscription(const Handling& it, const std::string& request_address,
                        const std::string& list, bool digest)
{
    const std::string sender = it.message.Sender();
    DlLog(6, "Received subscription message from %s for mailing list %s", sender.c_str(),
          list.c_str());
    if (IsListMember(list, sender)) {
        DlLog(6, "%s has been subscribed to mailing list %s already, message was discarded",
              sender.c_str(), list.c_str());
        return kGoOn;
    }
    if (!ListCache().AllowAutoSubscription(list))
        return AddAndNotify(it, list, digest, nullptr, {kRequestedAdd, kRequestedAddNotice});
    return Confirm(it, request_address, {.subscribe = true, .digest = digest});
}

long HandleUnsubscription(const Handling& it, const std::string& request_address,
                          const std::string& list)
{
    const std::string sender = it.message.Sender();
    DlLog(6, "Received unsubscription message from %s for mailing list %s", sender.c_str(),
          list.c_str());
    if (IsListMember(list, sender))
        return Confirm(it, request_address, {});
    DlLog(6, "%s is not a valid list member of mailing list %s, message was discarded",
          sender.c_str(), list.c_str());
    return kGoOn;
}

long HandleRegistration(const Handling& it, const std::string& request_address,
                        const std::string& list, bool digest)
{
    const std::string sender = it.message.Sender();
    DlLog(6, "Received archive registration message from %s for mailing list %s", sender.c_str(),
          list.c_str());
    if (!IsListMember(list, sender) || GetListMode(list) != kClosedList)
        return kGoOn;
    return Confirm(it, request_address, {.subscribe = false, .digest = digest, .archive = true});
}

// The pending file goes once the change and its answers are committed: until then the reply may be
// handled again.
long HandleConfirmed(const Handling& it, const std::string& request_address,
                     const std::string& list, ConfirmationReply& reply)
{
    const long place =
        list.empty() ? ForwardWhole(it, request_address, kForwardReply) : CarryOut(it, list, reply);
    if (place != kGoOn)
        return place;
    it.work.After([pending = reply.pending] { pending.End(); });
    (void)ListCache().RefreshCache();  // it has logged; the old lists serve until the next
    return kGoOn;
}

}  // namespace

long HandleRequest(const Handling& it, const std::string& request_address)
{
    const std::string list = SplitAlias(request_address, kRequestSuffix).List();
    ConfirmationReply reply =
        ProcessConfirmationReply(it.message, it.message.Sender(), request_address);
    if (reply.confirmed)
        return HandleConfirmed(it, request_address, list, reply);
    const RequestCommand command = GetRequestCommand(it.message.id);
    if (NotedMachineFault() != 0)
        return kNotRead;  // what could not be read says nothing of what was asked for
    Count(!command.known      ? Metric::kRequestUnknown
          : command.archive   ? Metric::kRequestArchive
          : command.subscribe ? Metric::kRequestSubscribe
                              : Metric::kRequestUnsubscribe);
    if (!command.known)
        return BounceUnknownCommand(it, request_address);
    if (list.empty())
        return ForwardWhole(it, request_address, kForwardCommand);
    if (command.archive)
        return HandleRegistration(it, request_address, list, command.digest);
    if (command.subscribe)
        return HandleSubscription(it, request_address, list, command.digest);
    return HandleUnsubscription(it, request_address, list);
}

}  // namespace dl
