// The member values of one directory entry become a list's members.

#include <new>

#include "lists/mailing_list.h"
#include "platform/address/address.h"
#include "platform/log/log.h"

namespace dl
{
namespace
{

constexpr std::string_view kImmediate = "Immediate;";
constexpr std::string_view kDigest = "Digest;";
constexpr std::string_view kBlocked = "Blocked;";

bool IsMember(const SearchAttribute& attribute)
{
    return EqualNoCase(attribute.name, "listmember");
}

// The members of one mode; false when there is no room for them.
bool Take(const SearchEntry& entry, std::string_view prefix, MemberList* members)
{
    try {
        for (const SearchAttribute& attribute : entry.attributes) {
            if (!IsMember(attribute) || !StartsWithNoCase(attribute.value, prefix))
                continue;
            const std::string_view address =
                std::string_view(attribute.value).substr(prefix.size());
            const bool blocked = StartsWithNoCase(address, kBlocked);
            members->Add(blocked ? address.substr(kBlocked.size()) : address, blocked);
        }
        members->Finish();
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

}  // namespace

void TakeMembers(const std::string& list, SearchEntry* entry, _mailinglist* record)
{
    const bool digest = Take(*entry, kDigest, &record->digest_members);
    if (!digest)
        DlLog(6,
              "Out of memory, could not allocate space to hold digest mode memeber of mailing "
              "list %s",
              list.c_str());
    const bool immediate = Take(*entry, kImmediate, &record->immediate_members);
    if (!immediate)
        DlLog(6,
              "Out of memory, could not allocate space to hold immediate mode memeber of "
              "mailing list %s",
              list.c_str());
    if (!digest || !immediate)
        throw std::bad_alloc();
    std::vector<SearchAttribute> others;
    for (SearchAttribute& attribute : entry->attributes)
        if (!IsMember(attribute))
            others.push_back(std::move(attribute));
    entry->attributes = std::move(others);
    record->digest_count = static_cast<std::int32_t>(record->digest_members.Count());
    record->immediate_count = static_cast<std::int32_t>(record->immediate_members.Count());
}

}  // namespace dl
