#include "dispatch/deliver.h"

#include <cstdint>
#include <new>
#include <utility>
#include <vector>

#include "dispatch/rewrite.h"
#include "lists/cache_shortcuts.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "platform/log/log_hold.h"
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
constexpr long kBounceFailed = 500;
constexpr long kNoSenderMemory = 529;
constexpr long kNoRecipientMemory = 558;
constexpr long kInsertFailed = 598;
constexpr long kPutFailed = 605;
constexpr long kCloseFailed = 611;

constexpr const char* kReasons[] = {"", "The original message cannot be read.",
                                    "Unable to create a file.",
                                    "Unable to write data to the message file."};

constexpr char kCloseFailedLine[] = "CloseMQEntry failed, message cannot be submitted to MQ.";

long BounceFailedRewrite(const Handling& it, const std::string& list, RewriteResult result)
{
    const std::string reason = FormatText(
        "There was a problem occurred while processing the message to the mailing list: \"%s\"\r\n"
        "Reason: %s\r\nPlease resend your message again.\r\n",
        list.c_str(), kReasons[static_cast<int>(result)]);
    if (BounceToSender(it.message, reason, it.output, false) != 0)
        return kBounceFailed;
    Count(Metric::kBouncedNotRewritten);
    return 0;
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
            DlLog(1, "%s", kCloseFailedLine);
            return kCloseFailed;
        case Submission::kDone:
            PromiseLines(kCloseFailedLine);
            break;
    }
    return 0;
}

// Addresses one behind the other: a list may have 100,000.
struct Addresses {
    explicit Addresses(stEnvelope* envelope)
    {
        envelope->recipients.cursor = nullptr;
        while (const _envRecip* to = envelope->recipients.Next())
            ends.push_back(static_cast<std::uint32_t>(text.append(to->address).size()));
    }
    std::string text;
    std::vector<std::uint32_t> ends;
};

void LogDeliveries(const Incoming& message, const std::string& list, const std::string& owner,
                   std::int64_t size, stEnvelope* envelope)
{
    const int count = envelope->recipients.count;
    WriteWhenTrue([name = BaseName(message.MessagePath()), size = static_cast<long>(size), owner,
                   to = Addresses(envelope)] {
        Count(Metric::kPostingsDelivered);
        Count(Metric::kDeliveries, to.ends.size());
        std::size_t from = 0;
        for (const std::size_t end : to.ends) {
            DlLog(3, "Delivered %s size: %ld bytes from: <%s> to <%s>", name.c_str(), size,
                  owner.c_str(), to.text.substr(from, end - from).c_str());
            from = end;
        }
    });
    DlLog(6, "Mail from: %s to %s has been forwarded to %d recipient(s)", message.Sender().c_str(),
          list.c_str(), count);
}

}  // namespace

bool IsMemoryPlace(long place)
{
    return place == kNoOwnerAlias || place == kNoSenderMemory || place == kNoRecipientMemory;
}

long DeliverPosting(const Handling& it, const std::string& list)
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
    const RewriteResult rewrite =
        RewriteListMessage(it.message.id, entry.get(), list, &it.work.Filing());
    if (rewrite != RewriteResult::kDone)
        return BounceFailedRewrite(it, list, rewrite);
    const auto text_of = [](const char* path) { return std::string(path ? path : ""); };
    AutoInsertForDL(GetMQId(entry.get()), text_of(GetDisclaimerFile(list)),
                    text_of(GetDisclaimerHTMLFile(list)));
    stEnvelope envelope;
    if (const long place = BuildEnvelope(list, owner, it.output, &envelope)) {
        DlLog(1, "Out of memory");
        return place;
    }
    const std::int64_t size = FileSize(GetMQPathName(entry.get(), ".msg"));
    if (ListCache().HasMember(list, "Immediate")) {
        if (const long place = SubmitPosting(std::move(entry), it.output, &envelope))
            return place;
    }
    LogDeliveries(it.message, list, owner, size, &envelope);
    return 0;
}

}  // namespace dl
