#include "digest/digest.h"

#include "digest/digest_writer.h"
#include "lists/cache_shortcuts.h"
#include "platform/log/log.h"
#include "platform/metrics/metrics.h"
#include "platform/mime/mime.h"
#include "requests/incoming.h"

namespace dl
{
namespace
{

constexpr GeneratorKind kDigestKind = {
    .create_failed = "Unable to create a new entry in Message Queue",
    .insert_failed = "InsertMQChannel failed, message digest cannot be submitted to MQ.",
    .put_failed = "PutMQEnvelope failed, message digest cannot be submitted to MQ.",
    .close_failed = "CloseMQEntry failed, message digest cannot be submitted to MQ.",
};

enum class Form { kPlain, kMime };

bool Write(GeneratedMessage& message, const std::string& list, const DigestFolder& folder,
           Form form)
{
    DigestWriter writer(message, list);
    if (!writer.Headers())
        return false;
    if (form == Form::kPlain)
        return writer.Topics(folder) && writer.Plain(folder);
    return writer.MimeStart() && writer.Topics(folder) && writer.Mime(folder);
}

void InsertTexts(const GeneratedMessage& message, const std::string& list, Form form)
{
    const char* text = GetDisclaimerFile(list);
    const char* html = form == Form::kMime ? GetDisclaimerHTMLFile(list) : nullptr;
    // A digest that cannot carry the disclaimers goes out without; that is logged.
    (void)AutoInsertForDL(GetMQId(message.Entry()), text ? text : "", html ? html : "");
}

bool Submit(GeneratedMessage& message, const std::string& list, const std::string& channel)
{
    stEnvelope envelope;
    _envFrom from;
    const std::string owner = OwnerAddress(list);
    from.address = owner;
    from.channel = channel;
    bool built = !owner.empty() && envelope.AddSender(from);
    dllist& cache = ListCache();
    for (const char* member = cache.GetFirstMember(list, "Digest"); built && member;
         member = cache.GetNextMember(list, "Digest")) {
        _envRecip to;
        to.address = member;
        built = envelope.AddRecipient(to);
    }
    if (!built) {
        DlLog(1, "Out of memory");
        return false;
    }
    const std::string id = message.EntryId();
    const auto size = static_cast<long>(FileSize(message.Path()));
    if (!message.Send(channel, &envelope))
        return false;
    Count(Metric::kDigests);
    Count(Metric::kDigestDeliveries, static_cast<std::uint64_t>(envelope.recipients.count));
    envelope.recipients.cursor = nullptr;
    while (const _envRecip* to = envelope.recipients.Next())
        DlLog(3, "Delivered %s size: %ld bytes from: <%s> to <%s>", id.c_str(), size, owner.c_str(),
              std::string(to->address).c_str());
    DlLog(6, "Message digest of %s has been sent to %d recipient(s)", list.c_str(),
          envelope.recipients.count);
    return true;
}

bool Compose(const std::string& list, const std::string& channel, const DigestFolder& folder,
             Form form)
{
    GeneratedMessage message(kDigestKind);
    if (!message.IsMade())
        return false;
    if (!message.Open()) {
        DlLog(1, "Unable to create a message file in Message Queue");
        return false;
    }
    if (!Write(message, list, folder, form))
        return false;
    if (!message.CloseFile()) {
        DlLog(1, "Error writing message digest of %s", list.c_str());
        return false;
    }
    InsertTexts(message, list, form);
    return Submit(message, list, channel);
}

bool Send(const std::string& list, const std::string& channel, Form form)
{
    const DigestFolder folder(list);
    if (folder.Postings().empty())
        return true;
    (void)ListCache().GetFirstMember(list, "Digest");  // chooses the list that HasMember looks at
    if (!ListCache().HasMember(list, "Digest"))
        DlLog(5,
              "The mailing list %s does not have digest mode list member, no message digest is "
              "sent",
              list.c_str());
    else if (!Compose(list, channel, folder, form))
        return false;
    folder.Empty();
    return true;
}

}  // namespace

bool SendPlainDigest(const std::string& list, const std::string& channel)
{
    return Send(list, channel, Form::kPlain);
}

bool SendMimeDigest(const std::string& list, const std::string& channel)
{
    return Send(list, channel, Form::kMime);
}

}  // namespace dl
