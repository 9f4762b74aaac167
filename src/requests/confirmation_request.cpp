// Sending a confirmation request.

#include <sys/stat.h>

#include <cstdlib>

#include "lists/cache_shortcuts.h"
#include "lists/data_folder.h"
#include "lists/dllist.h"
#include "platform/clock/clock.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "requests/commands.h"
#include "requests/confirmations.h"
#include "requests/owner_copy.h"
#include "requests/text_message.h"

namespace dl
{
namespace
{

constexpr GeneratorKind kConfirmationRequest = {
    .insert_failed =
        "InsertMQChannel failed, unable to send confirmation request message back to the sender.",
    .put_failed =
        "PutMQEnvelope failed, unable to send confirmation request message back to the sender.",
    .close_failed =
        "CloseMQEntry failed, unable to send confirmation request message back to the sender.",
    .priority = 255,
};
constexpr std::chrono::milliseconds kRetry{10};

bool Exists(const std::string& path)
{
    struct stat status {
    };
    return lstat(path.c_str(), &status) == 0;
}

// An id whose file does not exist yet. The seed is the current second, so a taken id is drawn until
// the clock moves on.
std::uint32_t DrawId(const std::string& list)
{
    for (;;) {
        std::srand(static_cast<unsigned>(Now()));
        const auto id = static_cast<std::uint32_t>(std::rand());
        if (!Exists(PendingPath(list, id)))
            return id;
        SleepFor(kRetry);
    }
}

std::string PendingLine(const ConfirmationKind& kind, const std::string& list,
                        const std::string& requester)
{
    if (!kind.subscribe)
        return FormatText("unsubscribe %s %s\r\n", list.c_str(), requester.c_str());
    if (kind.digest)
        return FormatText("subscribe digest %s %s\r\n", list.c_str(), requester.c_str());
    return FormatText("subscribe %s %s\r\n", list.c_str(), requester.c_str());
}

// Creates the pending file, on disk before anybody is asked; false when it cannot be created whole.
bool WritePending(const ConfirmationKind& kind, const std::string& list,
                  const std::string& requester, std::uint32_t* id)
{
    if (ListFolder(list).empty())
        return false;
    *id = DrawId(list);
    const std::string path = PendingPath(list, *id);
    FileWriter out(path, "wbx");
    if (!out.IsOpen())
        return false;
    if (out.Write(PendingLine(kind, list, OneLine(requester))) && out.Close() && SyncPath(path) &&
        SyncPath(ListFolder(DataFolderName(list))))
        return true;
    (void)Files().Remove(path.c_str());  // half a line would only wait to expire
    return false;
}

bool FindRegistration(const Incoming& message, const std::string& list, std::uint32_t* id)
{
    const RegistrationId registration = GetArchiveRegistrationId(message.id);
    if (!registration.found)
        return false;
    *id = registration.id;
    return Exists(PendingPath(list, *id));
}

bool WriteText(GeneratedMessage& request, const ConfirmationKind& kind, const std::string& list,
               std::uint32_t id)
{
    if (kind.archive)
        return request.Print("Subject: archive authentication confirmation request (%08X)\r\n\r\n",
                             id) &&
               request.Print(
                   "Your archive authentication to the mailing list %s requires confirmation.\r\n"
                   "To confirm, simply reply to the present message with \"OK\"\r\n"
                   "(without the quotes) in the message body and do not retain\r\n"
                   "the original content of this message.\r\n\r\n",
                   list.c_str());
    const char* word = kind.subscribe ? "subscription" : "unsubscription";
    return request.Print("Subject: %s confirmation request (%08X)\r\n\r\n", word, id) &&
           request.Print(
               "Your %s of the mailing list %s requires confirmation.\r\n"
               "To confirm, simply reply to the present message with \"OK\"\r\n"
               "(without the quotes) in the message body and do not retain\r\n"
               "the original content of this message.\r\n\r\n",
               word, list.c_str()) &&
           AppendTextFile(
               request, kind.subscribe ? GetSubscribeTextFile(list) : GetUnsubscribeTextFile(list));
}

void LogSent(const ConfirmationKind& kind, const std::string& list, const std::string& requester)
{
    if (kind.archive)
        DlLog(6,
              "An archive registration confirmation request for mailing list (%s) has been sent "
              "to %s",
              list.c_str(), requester.c_str());
    else
        DlLog(6, "%s confirmation request message for mailing list (%s) has been sent to %s",
              kind.subscribe ? "A subscription" : "An unsubscription", list.c_str(),
              requester.c_str());
}

int OwnerReason(const ConfirmationKind& kind)
{
    if (kind.archive)
        return kArchiveRegistration;
    return kind.subscribe ? kSubscription : kUnsubscription;
}

}  // namespace

int SendConfirmationRequest(const Incoming& message, const std::string& request_address,
                            const std::string& channel, const ConfirmationKind& kind)
{
    const ListAlias parts = SplitAlias(request_address, kRequestSuffix);
    const std::string list = parts.List();
    if (list.empty())
        return -1;
    const std::string requester = message.Sender();
    std::uint32_t id = 0;
    const bool pending = kind.archive ? FindRegistration(message, list, &id)
                                      : WritePending(kind, list, requester, &id);
    if (!pending)
        return -1;
    GeneratedMessage request(kConfirmationRequest);
    if (!request.IsMade() || !request.Open() || !request.Received() || !request.MessageId() ||
        !request.Date() || !WriteTextHeaders(request, request_address, requester))
        return -1;
    request.SetUnsent(Unsent::kClose);
    if (!WriteText(request, kind, list, id))
        return -1;
    request.SetUnsent(Unsent::kDiscard);
    if (!request.Send(request_address, requester, channel))
        return -1;
    LogSent(kind, list, requester);
    const std::string owner =
        FormatText("%.*s-owner@%s", parts.length, parts.local.c_str(), parts.domain.c_str());
    // The request is on its way whether or not the owner hears of it, a failure has been logged;
    // but while nobody knows who that is, all of it is for later.
    if (ForwardToOwner(owner, message, channel, OwnerReason(kind)) == 0 ||
        !ListCache().LookUpFailed())
        return 0;
    if (!kind.archive)
        (void)Files().Remove(PendingPath(list, id).c_str());  // or it waits to expire
    return -1;
}

}  // namespace dl
