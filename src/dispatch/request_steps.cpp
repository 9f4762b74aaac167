#include "dispatch/request_steps.h"

#include "dispatch/list_address.h"
#include "lists/dllist.h"
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
constexpr long kForwardCommand = 305;
constexpr long kRequestedAdd = 310;
constexpr long kRequestedAddNotice = 312;

long AddAndNotify(const Incoming& message, const std::string& list, const std::string& output,
                  bool digest, long add_place, long notice_place)
{
    const int added = AddListMember(message, message.Sender(), list, output, digest);
    if (added == -1)
        return add_place;
    return NotifySubscription(message, list, output, added) == -1 ? notice_place : kGoOn;
}

long CarryOut(const Incoming& message, const std::string& list, const std::string& output,
              const ConfirmationKind& kind)
{
    const std::string sender = message.Sender();
    Count(kind.archive     ? Metric::kConfirmedArchive
          : kind.subscribe ? Metric::kConfirmedSubscribe
                           : Metric::kConfirmedUnsubscribe);
    if (kind.archive) {
        DlLog(6, "Received archive authentication confirm message from %s for mailing list %s",
              sender.c_str(), list.c_str());
        return NotifyArchiveRegistration(message, list, output, 0) == -1 ? kArchiveNotice : kGoOn;
    }
    if (kind.subscribe) {
        DlLog(6, "Received subscription confirm message from %s for mailing list %s",
              sender.c_str(), list.c_str());
        return AddAndNotify(message, list, output, kind.digest, kConfirmedAdd, kConfirmedAddNotice);
    }
    DlLog(6, "Received unsubscription confirm message from %s for mailing list %s", sender.c_str(),
          list.c_str());
    const int removed = RemoveListMember(message, sender, list, output);
    if (removed == -1)
        return kConfirmedRemove;
    return NotifyUnsubscription(message, list, output, removed) == -1 ? kConfirmedRemoveNotice
                                                                      : kGoOn;
}

// For a request whose list's address cannot be formed: a person may know what to do with it.
long ForwardWhole(const Incoming& message, const std::string& request_address,
                  const std::string& output, long place)
{
    return ForwardToOwner(request_address, message, output, kForTheOwner) == -1 ? place : kGoOn;
}

void BounceUnknownCommand(const Incoming& message, const std::string& request_address,
                          const std::string& output)
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
    if (BounceToSender(message, reason, output, false) == 0)  // else it has logged
        Count(Metric::kBouncedUnknownCommand);
}

void Confirm(const Incoming& message, const std::string& request_address, const std::string& output,
             const ConfirmationKind& kind)
{
    // A request that could not be sent leaves no answer: the requester may ask again.
    (void)SendConfirmationRequest(message, request_address, output, kind);
}

long HandleSubscription(const Incoming& message, const std::string& request_address,
                        const std::string& list, const std::string& output, bool digest)
{
    const std::string sender = message.Sender();
    DlLog(6, "Received subscription message from %s for mailing list %s", sender.c_str(),
          list.c_str());
    if (IsListMember(list, sender)) {
        DlLog(6, "%s has been subscribed to mailing list %s already, message was discarded",
              sender.c_str(), list.c_str());
        return kGoOn;
    }
    if (!ListCache().AllowAutoSubscription(list))
        return AddAndNotify(message, list, output, digest, kRequestedAdd, kRequestedAddNotice);
    Confirm(message, request_address, output, {.subscribe = true, .digest = digest});
    return kGoOn;
}

void HandleUnsubscription(const Incoming& message, const std::string& request_address,
                          const std::string& list, const std::string& output)
{
    const std::string sender = message.Sender();
    DlLog(6, "Received unsubscription message from %s for mailing list %s", sender.c_str(),
          list.c_str());
    if (IsListMember(list, sender))
        Confirm(message, request_address, output, {});
    else
        DlLog(6, "%s is not a valid list member of mailing list %s, message was discarded",
              sender.c_str(), list.c_str());
}

void HandleRegistration(const Incoming& message, const std::string& request_address,
                        const std::string& list, const std::string& output, bool digest)
{
    const std::string sender = message.Sender();
    DlLog(6, "Received archive registration message from %s for mailing list %s", sender.c_str(),
          list.c_str());
    if (IsListMember(list, sender) && GetListMode(list) == kClosedList)
        Confirm(message, request_address, output,
                {.subscribe = false, .digest = digest, .archive = true});
}

}  // namespace

long HandleRequest(const Incoming& message, const std::string& request_address,
                   const std::string& output)
{
    const std::string list = SplitAlias(request_address, kRequestSuffix).List();
    const ConfirmationReply reply =
        ProcessConfirmationReply(message, message.Sender(), request_address);
    if (reply.confirmed) {
        const long place = list.empty()
                               ? ForwardWhole(message, request_address, output, kForwardReply)
                               : CarryOut(message, list, output, reply.kind);
        if (place == kGoOn)
            (void)ListCache().RefreshCache();  // it has logged; the old lists serve until the next
        return place;
    }
    const RequestCommand command = GetRequestCommand(message.id);
    Count(!command.known      ? Metric::kRequestUnknown
          : command.archive   ? Metric::kRequestArchive
          : command.subscribe ? Metric::kRequestSubscribe
                              : Metric::kRequestUnsubscribe);
    if (!command.known) {
        BounceUnknownCommand(message, request_address, output);
        return kGoOn;
    }
    if (list.empty())
        return ForwardWhole(message, request_address, output, kForwardCommand);
    if (command.archive)
        HandleRegistration(message, request_address, list, output, command.digest);
    else if (command.subscribe)
        return HandleSubscription(message, request_address, list, output, command.digest);
    else
        HandleUnsubscription(message, request_address, list, output);
    return kGoOn;
}

}  // namespace dl
