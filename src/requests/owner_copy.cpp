#include "requests/owner_copy.h"

#include "lists/dllist.h"
#include "requests/generated_message.h"

namespace dl
{
namespace
{

constexpr GeneratorKind kOwnerCopyKind = {
    .create_failed = "Unable to create an entry in Message Queue",
    .insert_failed = "InsertMQChannel failed, unable to forward mail message to the list owner.",
    .put_failed = "PutMQEnvelope failed, unable to forward mail message to the list owner.",
    .close_failed = "CloseMQEntry failed, unable to forward mail message to the list owner.",
    .boundary = "KVT.Boundary.%08X",
    .unsent = Unsent::kLeave,
};
constexpr std::size_t kCopyBuffer = 256;

// The two formats of a reason. The subject gets the list's local part (length and text) and domain,
// the explanation the sender before them.
struct ReasonText {
    const char* subject;
    const char* explanation;
};

constexpr ReasonText kReasons[] = {
    {"Subject: subscription to %.*s-request@%s (fwd)\r\n",
     "A copy of subscription message from %s to %.*s-request@%s is being forwarded to you.\r\n"
     "The original message follows.\r\n"},
    {"Subject: unsubscription to %.*s-request@%s (fwd)\r\n",
     "A copy of unsubscription message from %s to %.*s-request@%s is being forwarded to you.\r\n"
     "The original message follows.\r\n"},
    {"Subject: message to closed list %.*s@%s (fwd)\r\n",
     "A copy of message from %s to the closed list %.*s@%s is being forwarded to you.\r\n"
     "The original message follows.\r\n"},
    {"Subject: subscription confirmation to %.*s-request@%s (fwd)\r\n",
     "A copy of subscription confirmation message from %s to %.*s-request@%s is being forwarded "
     "to you.\r\nThe original message follows.\r\n"},
    {"Subject: unsubscription confirmation to %.*s-request@%s (fwd)\r\n",
     "A copy of unsubscription confirmation message from %s to %.*s-request@%s is being forwarded "
     "to you.\r\nThe original message follows.\r\n"},
    {"Subject: message sent from blocked member to %.*s@%s (fwd)\r\n",
     "A copy of the mail message from the blocked member %s to %.*s@%s is being forwarded to "
     "you.\r\nThe original message follows.\r\n"},
    {"Subject: archive registration to %.*s-request@%s (fwd)\r\n",
     "A copy of archive authentication message from %s to %.*s-request@%s is being forwarded to "
     "you.\r\nThe original message follows.\r\n"},
};

bool IsKnown(int reason)
{
    return reason >= 0 && reason < static_cast<int>(std::size(kReasons));
}

bool WriteSubject(GeneratedMessage& copy, const std::string& alias, const ListAlias& parts,
                  int reason)
{
    if (!IsKnown(reason))
        return copy.Print("Subject: message to %s (fwd)\r\n", alias.c_str());
    return copy.Print(kReasons[reason].subject, parts.length, parts.local.c_str(),
                      parts.domain.c_str());
}

bool WriteExplanation(GeneratedMessage& copy, const std::string& alias, const ListAlias& parts,
                      const std::string& sender, int reason)
{
    if (!IsKnown(reason))
        return copy.Print(
            "A copy of message from %s to %s is being forwarded to you.\r\n"
            "The original message follows.\r\n",
            sender.c_str(), alias.c_str());
    return copy.Print(kReasons[reason].explanation, sender.c_str(), parts.length,
                      parts.local.c_str(), parts.domain.c_str());
}

bool WriteCopy(GeneratedMessage& copy, const std::string& alias, const ListAlias& parts,
               const Incoming& message, int reason)
{
    if (!copy.Received() || !copy.MessageId() || !copy.Date() ||
        !copy.Print("From: %s\r\n", alias.c_str()) || !copy.Print("To: %s\r\n", alias.c_str()) ||
        !WriteSubject(copy, alias, parts, reason) || !copy.Print("Mime-version: 1.0\r\n"))
        return false;
    const std::string boundary = copy.Boundary({message.MessagePath()});
    return copy.Print("Content-type: multipart/mixed; boundary=\"%s\"\r\n\r\n", boundary.c_str()) &&
           copy.Print("\r\n--%s\r\n", boundary.c_str()) &&
           copy.Print("Content-type: text/plain\r\n\r\n") &&
           WriteExplanation(copy, alias, parts, OneLine(message.Sender()), reason) &&
           copy.Print("\r\n--%s\r\n", boundary.c_str()) &&
           copy.Print("Content-type: message/rfc822\r\n\r\n") &&
           copy.CopyFile(message.MessagePath(), kCopyBuffer) == GeneratedMessage::Copied::kDone &&
           copy.Print("\r\n--%s--\r\n", boundary.c_str());
}

}  // namespace

int ForwardToOwner(const std::string& alias, const Incoming& message, const std::string& channel,
                   int reason)
{
    const ListAlias parts = SplitAlias(alias, kOwnerSuffix);
    GeneratedMessage copy(kOwnerCopyKind);
    if (!copy.IsMade())
        return -1;
    const char* found = ListCache().GetListOwner(parts.List());
    if (!found && ListCache().LookUpFailed())
        copy.SetUnsent(Unsent::kDiscard);  // it is tried again and again
    if (!found)
        return -1;
    const std::string owner = found;
    if (!copy.Open() || !WriteCopy(copy, OneLine(alias), parts, message, reason) ||
        !copy.CloseFile())
        return -1;
    return copy.Send(alias, owner, channel) ? 0 : -1;
}

}  // namespace dl
