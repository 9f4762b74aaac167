#include "requests/membership.h"

#include "lists/directory_access.h"
#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/files/machine_fault.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "requests/owner_copy.h"

namespace dl
{
namespace
{

constexpr char kMemberAttribute[] = "listmember";
constexpr int kSubtree = 2;

// The four forms of a member value, in the order in which an address is looked for.
constexpr const char* kForms[] = {"Immediate;", "Immediate;Blocked;", "Digest;", "Digest;Blocked;"};

bool IsMemberValue(const std::string& value, const std::string& member)
{
    for (const std::string_view form : kForms)
        if (StartsWithNoCase(value, form) && EqualNoCase(value.substr(form.size()), member))
            return true;
    return false;
}

enum class Membership { kMember, kNone, kUnknown };

Membership FindMember(ldapClient& client, const std::string& list, const std::string& member)
{
    const std::string filter =
        FormatText("(&(mail=%s)(objectclass=qvlist))", EscapeFilterValue(list).c_str());
    const SearchReq found = client.ldapClientSearch(nullptr, kSubtree, false, filter);
    if (found.failed)
        return Membership::kUnknown;
    for (const SearchEntry& entry : found.entries)
        for (const SearchAttribute& attribute : entry.attributes)
            if (attribute.name == kMemberAttribute && IsMemberValue(attribute.value, member))
                return Membership::kMember;
    return Membership::kNone;
}

std::string NewMemberValue(const std::string& list, const std::string& member, bool digest)
{
    if (ListCache().AllowPosting(list))
        return FormatText(digest ? "Digest;%s" : "Immediate;%s", member.c_str());
    return FormatText(digest ? "Digest;Blocked;%s" : "Immediate;Blocked;%s", member.c_str());
}

// What is no mailbox, or does not fit into a value, is refused as the directory would refuse it.
ModifyResult Change(ldapClient& client, const std::string& list, const std::string& member,
                    AttributeChange::Operation operation, const std::string& value)
{
    RT parsed;
    const bool usable = RecipParse(member, &parsed, 1) == 1 && value.size() <= kMaxModifyValue;
    Clear_RT(&parsed);
    if (!usable)
        return ModifyResult::kRefused;
    return client.ldapClientModify(ListEntryName(list), {{operation, kMemberAttribute, value}});
}

// That the directory does not answer is never held against the message.
int NoDirectory()
{
    NoteMachineFault(kToldFault);
    return -1;
}

int LostDirectory()
{
    DlLog(1, "Lost the connection to Directory Server before a membership change was answered");
    return NoDirectory();
}

int CopyToOwner(const Incoming& message, const std::string& list, const std::string& channel,
                int reason)
{
    return ForwardToOwner(OwnerAddress(list), message, channel, reason);
}

}  // namespace

int AddListMember(const Incoming& message, const std::string& member, const std::string& list,
                  const std::string& channel, bool digest, PendingConfirmation* pending)
{
    ldapClient client;
    if (!OpenDirectory(&client))
        return NoDirectory();
    const Membership membership = FindMember(client, list, member);
    if (membership == Membership::kUnknown)
        return LostDirectory();
    const bool was_added = membership == Membership::kMember && pending && pending->begun;
    if (membership == Membership::kMember && !was_added)
        return 2;
    if (!ListCache().AllowAutoSubscription(list)) {
        client.ldapClientUnbind();
        DlLog(6, "mailing list %s does not allow auto subscription via email", list.c_str());
        if (CopyToOwner(message, list, channel, kSubscription) == -1)
            return -1;
        DlLog(6, "Forwarded auto subscription message to %s", OwnerAddress(list).c_str());
        return 0;
    }
    if (was_added)
        return CopyToOwner(message, list, channel, kSubscriptionConfirmed) == -1 ? -1 : 1;
    if (pending && !pending->Begin())
        return -1;
    const ModifyResult result = Change(client, list, member, AttributeChange::Operation::kAdd,
                                       NewMemberValue(list, member, digest));
    client.ldapClientUnbind();
    if (result == ModifyResult::kUnreachable)
        return LostDirectory();
    if (result == ModifyResult::kDone)
        DlLog(6, "Added %s, mode=%s to %s", member.c_str(), digest ? "Digest" : "Immediate",
              list.c_str());
    else
        DlLog(6, "Unable to add new member (%s) to the mailing list %s", member.c_str(),
              list.c_str());
    return CopyToOwner(message, list, channel, kSubscriptionConfirmed) == -1 ? -1 : 1;
}

int RemoveListMember(const Incoming& message, const std::string& member, const std::string& list,
                     const std::string& channel)
{
    static constexpr const char* kDeleteOrder[] = {"Immediate;%s", "Digest;%s",
                                                   "Immediate;Blocked;%s", "Digest;Blocked;%s"};
    ldapClient client;
    if (!OpenDirectory(&client))
        return NoDirectory();
    for (const char* form : kDeleteOrder) {
        const ModifyResult result =
            Change(client, list, member, AttributeChange::Operation::kDelete,
                   FormatText(form, member.c_str()));
        if (result == ModifyResult::kUnreachable)
            return LostDirectory();
        if (result == ModifyResult::kDone) {
            DlLog(6, "%s was successfully removed from mailing list: %s", member.c_str(),
                  list.c_str());
            break;
        }
    }
    client.ldapClientUnbind();
    return CopyToOwner(message, list, channel, kUnsubscriptionConfirmed);
}

}  // namespace dl
