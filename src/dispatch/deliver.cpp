#include "dispatch/deliver.h"

#include <new>
#include <utility>

#include "dispatch/rewrite.h"
#include "lists/cache_shortcuts.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "platform/metrics/metrics.h"
#include "platform/mime/mime.h"
#include "requests/bounce.h"

namespace dl
{
namespace
{

constexpr int kPriority = 255;

// Places of "Breaking main loop at line: %ld".
constexpr long kNoEntry = 484;
constexpr long kNoOwnerAlias = 490;
constexpr long kNoSenderMemory = 529;
constexpr long kNoRecipientMemory = 558;
constexpr long kInsertFailed = 598;
constexpr long kPutFailed = 605;
constexpr long kCloseFailed = 611;

constexpr const char* kReasons[] = {"", "The original message cannot be read.",
                                    "Unable to create a file.",
                                    "Unable to write data to the message file."};

void BounceFailedRewrite(const Incoming& message, const std::string& list,
                         const std::string& channel, RewriteResult result)
{
    const std::string reason = FormatText(
        "There was a problem occurred while processing the message to the mailing list: \"%s\"\r\n"
        "Reason: %s\r\nPlease resend your message again.\r\n",
        list.c_str(), kReasons[static_cast<int>(result)]);
    if (BounceToSender(message, reason, channel, false) == 0)  // else it has logged what failed
        Count(Metric::kBouncedNotRewritten);
}

// One sender, the owner alias; one recipient per immediate member, in member order. The addresses
// are the cache's own texts.
long BuildEnvelope(const std::string& list, const std::string& owner, const std::string& channel,
                   stEnvelope* envelope)
{
    _envFrom from;
    from.address = owner;
    from.channel = channel;
    if (!envelope->AddSender(from))
        return kNoSenderMemory;
    dllist& cache = ListCache();
    for (const char* member = cache.GetFirstMember(list, "Immediate"); member;
         member = cache.GetNextMember(list, "Immediate")) {
        _envRecip to;
        to.address = member;
        if (!envelope->AddRecipient(to))
            return kNoRecipientMemory;
    }
    return 0;
}

long SubmitPosting(NewMQEntry entry, const std::string& channel, stEnvelope* envelope)
{
    switch (Submit(std::move(entry), channel, kPriority, envelope)) {
        case Submission::kInsertFailed:
            DlLog(1, "InsertMQChannel failed, message cannot be submitted to MQ.");
            return kInsertFailed;
        case Submission::kPutFailed:
            DlLog(1, "PutMQEnvelope failed, message cannot be submitted to MQ.");
            return kPutFailed;
        case Submission::kCloseFailed:
            DlLog(1, "CloseMQEntry failed, message cannot be submitted to MQ.");
            return kCloseFailed;
        case Submission::kDone:
            break;
    }
    return 0;
}

void LogDeliveries(const Incoming& message, const std::string& list, const std::string& owner,
                   std::int64_t size, stEnvelope* envelope)
{
    const std::string name = BaseName(message.MessagePath());
    Count(Metric::kPostingsDelivered);
    Count(Metric::kDeliveries, static_cast<std::uint64_t>(envelope->recipients.count));
    envelope->recipients.cursor = nullptr;
    while (const _envRecip* to = envelope->recipients.Next())
        DlLog(3, "Delivered %s size: %ld bytes from: <%s> to <%s>", name.c_str(),
              static_cast<long>(size), owner.c_str(), std::string(to->address).c_str());
    DlLog(6, "Mail from: %s to %s has been forwarded to %d recipient(s)", message.Sender().c_str(),
          list.c_str(), envelope->recipients.count);
}

}  // namespace

long DeliverPosting(const Incoming& message, const std::string& list, const std::string& channel)
{
    NewMQEntry entry;
    if (!entry) {
        DlLog(1, "Cannot create an entry in Message Queue");
        return kNoEntry;
    }
    const std::string owner = OwnerAddress(list);
    if (owner.empty()) {
        DlLog(1, "Out of memory");
        return kNoOwnerAlias;
    }
    const RewriteResult rewrite = RewriteListMessage(message.id, entry.get(), list);
    if (rewrite != RewriteResult::kDone) {
        BounceFailedRewrite(message, list, channel, rewrite);
        return 0;
    }
    const auto text_of = [](const char* path) { return std::string(path ? path : ""); };
    AutoInsertForDL(GetMQId(entry.get()), text_of(GetDisclaimerFile(list)),
                    text_of(GetDisclaimerHTMLFile(list)));
    stEnvelope envelope;
    if (const long place = BuildEnvelope(list, owner, channel, &envelope)) {
        DlLog(1, "Out of memory");
        return place;
    }
    const std::int64_t size = FileSize(GetMQPathName(entry.get(), ".msg"));
    if (ListCache().HasMember(list, "Immediate")) {
        if (const long place = SubmitPosting(std::move(entry), channel, &envelope))
            return place;
    }
    LogDeliveries(message, list, owner, size, &envelope);
    return 0;
}

}  // namespace dl
