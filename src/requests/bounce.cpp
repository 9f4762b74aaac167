#include "requests/bounce.h"

#include "platform/address/address.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "requests/generated_message.h"

namespace dl
{
namespace
{

constexpr GeneratorKind kBounceKind = {
    .insert_failed = "InsertMQChannel failed, unable to generate bounce message to sender.",
    .put_failed = "PutMQEnvelope failed, unable to generate bounce message to sender.",
    .close_failed = "CloseMQEntry failed, unable to generate bounce message to sender.",
    .boundary = "KVT.Boundary.%08x",
    .message_id = "Message-id: <%s.%s@%s.%s>\r\n",
};
constexpr std::int32_t kFlagWord = 0x80;
constexpr std::size_t kCopyBuffer = 256;

bool WriteHeaders(GeneratedMessage& bounce, const std::string& boundary, const std::string& sender,
                  bool null_sender)
{
    const Gateway& host = bounce.Host();
    return bounce.Received() && bounce.MessageId() && bounce.Date() &&
           bounce.Print("Mime-version: 1.0\r\n") &&
           bounce.Print("Content-type: multipart/mixed; boundary=\"%s\"\r\n", boundary.c_str()) &&
           bounce.Print("Subject: unable to deliver mail\r\n") &&
           bounce.Print("From: postmaster@%s.%s\r\n", host.host.c_str(), host.domain.c_str()) &&
           (null_sender
                ? bounce.Print("To: postmaster@%s.%s\r\n", host.host.c_str(), host.domain.c_str())
                : bounce.Print("To: %s\r\n", OneLine(sender).c_str()));
}

bool WriteBody(GeneratedMessage& bounce, const std::string& boundary, const std::string& reason,
               const std::string& original)
{
    return bounce.Print("\r\n\r\n--%s\r\n", boundary.c_str()) &&
           bounce.Print("Content-type: text/plain\r\n\r\n") &&
           bounce.Print(
               "\tThis message was bounced to you because of the following reason(s):"
               "\r\n\r\n\t%s\r\n\r\n",
               reason.c_str()) &&
           bounce.Print("--%s\r\n", boundary.c_str()) &&
           bounce.Print("Content-type: message/rfc822\r\n\r\n") &&
           bounce.CopyFile(original, kCopyBuffer) == GeneratedMessage::Copied::kDone &&
           bounce.Print("\r\n--%s--\r\n", boundary.c_str());
}

}  // namespace

int BounceToSender(const Incoming& message, const std::string& reason, const std::string& channel,
                   bool flag)
{
    GeneratedMessage bounce(kBounceKind);
    const std::string original = message.MessagePath();
    if (!bounce.IsMade() || !bounce.Open())
        return -1;
    const std::string sender = message.Sender();
    const bool null_sender = EqualNoCase(sender, "<>");
    const std::string recipient = null_sender
                                      ? FormatText("postmaster@%s.%s", bounce.Host().host.c_str(),
                                                   bounce.Host().domain.c_str())
                                      : sender;
    const std::string boundary = bounce.Boundary({original});
    if (!WriteHeaders(bounce, boundary, sender, null_sender) ||
        !WriteBody(bounce, boundary, reason, original) || !bounce.CloseFile())
        return -1;
    const std::int64_t size = FileSize(bounce.Path());
    const std::string id = bounce.EntryId();
    if (!bounce.Send("<>", recipient, channel, flag ? kFlagWord : 0))
        return -1;
    DlLog(3, "Bounced %s size: %ld bytes to: <%s>", id.c_str(), static_cast<long>(size),
          recipient.c_str());
    return 0;
}

}  // namespace dl
