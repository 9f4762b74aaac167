#include "digest/digest.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <vector>

#include "digest/digest_writer.h"
#include "digest/sent_digest.h"
#include "lists/cache_shortcuts.h"
#include "platform/clock/clock.h"
#include "platform/files/machine_fault.h"
#include "platform/log/log.h"
#include "platform/metrics/metrics.h"
#include "platform/mime/mime.h"
#include "platform/queue/work.h"
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

constexpr std::time_t kRetrySeconds = 60;  // to remove what could not be removed

enum class Form { kPlain, kMime };

bool Write(GeneratedMessage& message, const std::string& list, const DigestContent& content,
           Form form)
{
    DigestWriter writer(message, list);
    if (!writer.Headers())
        return false;
    if (form == Form::kPlain)
        return writer.Topics(content) && writer.Plain(content);
    return writer.MimeStart(content) && writer.Topics(content) && writer.Mime(content);
}

void InsertTexts(const GeneratedMessage& message, const std::string& list, Form form)
{
    const char* text = GetDisclaimerFile(list);
    const char* html = form == Form::kMime ? GetDisclaimerHTMLFile(list) : nullptr;
    // A digest that cannot carry the disclaimers goes out without; that is logged.
    (void)AutoInsertForDL(GetMQId(message.Entry()), text ? text : "", html ? html : "");
}

// One sender, the owner alias; one recipient per digest member.
bool Address(const std::string& list, const std::string& owner, const std::string& channel,
             stEnvelope* envelope)
{
    _envFrom from;
    from.address = owner;
    from.channel = channel;
    bool built = !owner.empty() && envelope->AddSender(from);
    dllist& cache = ListCache();
    for (const char* member = cache.GetFirstMember(list, "Digest"); built && member;
         member = cache.GetNextMember(list, "Digest")) {
        _envRecip to;
        to.address = member;
        built = envelope->AddRecipient(to);
    }
    return built;
}

// The digest and its mark become visible together.
bool Commit(GeneratedMessage& message, const std::string& channel, stEnvelope* envelope,
            const SentDigest& sent)
{
    MQWork work;
    if (!message.Send(channel, envelope))
        return false;
    const bool marked = sent.Mark();
    work.EndPart();
    if (marked && work.Commit(1))
        return true;
    DlLog(1, "%s", kDigestKind.close_failed);
    return false;
}

bool Submit(GeneratedMessage& message, const std::string& channel, const SentDigest& sent)
{
    stEnvelope envelope;
    const std::string& list = sent.list;
    const std::string owner = OwnerAddress(list);
    if (!Address(list, owner, channel, &envelope)) {
        DlLog(1, "Out of memory");
        return false;
    }
    const std::string id = message.EntryId();
    const auto size = static_cast<long>(FileSize(message.Path()));
    if (!Commit(message, channel, &envelope, sent))
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

bool Compose(const std::string& channel, const DigestContent& content, const SentDigest& sent,
             Form form)
{
    GeneratedMessage message(kDigestKind);
    if (!message.IsMade())
        return false;
    if (!message.Open()) {
        DlLog(1, "Unable to create a message file in Message Queue");
        return false;
    }
    ForgetMachineFault();
    if (!Write(message, sent.list, content, form))
        return false;
    // Topics that are not there are left out; those that cannot be read are not.
    if (NotedMachineFault() != 0 || !message.CloseFile()) {
        DlLog(1, "Error writing message digest of %s", sent.list.c_str());
        return false;
    }
    InsertTexts(message, sent.list, form);
    return Submit(message, channel, sent);
}

// A posting whose message has not left its channel, as after a crash, is filed again when that is
// handled; in two digests it must not be. False when the queue cannot be read.
bool IsHandled(const std::string& name, bool* handled)
{
    std::vector<QueueItem> items;
    const std::optional<unsigned long> id = PostingId(name);
    if (id && !FindMQ(*id, &items))
        return false;
    *handled = std::none_of(items.begin(), items.end(), [](const QueueItem& item) {
        return item.channel == kInputChannel || item.origin == kInputChannel;
    });
    return true;
}

bool ReadContent(const DigestFolder& folder, DigestContent* content)
{
    for (const std::string& name : folder.Postings()) {
        bool handled = false;
        if (!IsHandled(name, &handled))
            return false;
        if (handled)
            content->postings.push_back(name);
        else
            content->whole = false;
    }
    return true;
}

bool Send(const std::string& list, const std::string& channel, std::time_t next, Form form)
{
    DigestContent content{DigestFolder(list)};
    if (!ReadContent(content.folder, &content))
        return false;
    if (content.postings.empty())
        return true;
    const SentDigest sent{list, next, content.postings};
    (void)ListCache().GetFirstMember(list, "Digest");  // chooses the list that HasMember looks at
    if (!ListCache().HasMember(list, "Digest"))
        DlLog(5,
              "The mailing list %s does not have digest mode list member, no message digest is "
              "sent",
              list.c_str());
    else if (!Compose(channel, content, sent, form))
        return false;
    (void)sent.Finish();  // what it could not do is logged, and done before the next digest
    return true;
}

}  // namespace

bool SendPlainDigest(const std::string& list, const std::string& channel, std::time_t next)
{
    return Send(list, channel, next, Form::kPlain);
}

bool SendMimeDigest(const std::string& list, const std::string& channel, std::time_t next)
{
    return Send(list, channel, next, Form::kMime);
}

bool FinishSentDigests(std::set<std::string>* unfinished)
{
    static std::map<std::string, std::time_t> tried;  // those that failed, and when
    std::vector<SentDigest> digests;
    if (!ReadSentDigests(&digests))
        return false;
    for (const SentDigest& digest : digests) {
        const auto last = tried.find(digest.list);
        const bool waits = last != tried.end() && std::abs(Now() - last->second) < kRetrySeconds;
        if (!waits && digest.Finish()) {
            tried.erase(digest.list);
            continue;
        }
        if (!waits)
            tried[digest.list] = Now();
        unfinished->insert(digest.list);
    }
    return true;
}

}  // namespace dl
