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

// Room for the members of one mode that `entry` holds; false when memory is short.
bool MakeRoom(const SearchEntry& entry, std::string_view prefix, MemberList* members)
{
    std::size_t count = 0;
    std::size_t bytes = 0;
    for (const SearchAttribute& attribute : entry.attributes) {
        if (!IsMember(attribute) || !StartsWithNoCase(attribute.value, prefix))
            continue;
        ++count;
        bytes += attribute.value.size() - prefix.size();
    }
    try {
        members->Reserve(count, bytes);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

void Append(std::string_view address, MemberList* members)
{
    const bool blocked = StartsWithNoCase(address, kBlocked);
    members->Add(blocked ? address.substr(kBlocked.size()) : address, blocked);
}

}  // namespace

void TakeMembers(const std::string& list, SearchEntry* entry, _mailinglist* record)
{
    const bool digest = MakeRoom(*entry, kDigest, &record->digest_members);
    if (!digest)
        DlLog(6,
              "Out of memory, could not allocate space to hold digest mode memeber of mailing "
              "list %s",
              list.c_str());
    const bool immediate = MakeRoom(*entry, kImmediate, &record->immediate_members);
    if (!immediate)
        DlLog(6,
              "Out of memory, could not allocate space to hold immediate mode memeber of "
              "mailing list %s",
              list.c_str());
    if (!digest || !immediate)
        throw std::bad_alloc();
    std::vector<SearchAttribute> others;
    for (SearchAttribute& attribute : entry->attributes) {
        const std::string_view value = attribute.value;
        if (!IsMember(attribute))
            others.push_back(std::move(attribute));
        else if (StartsWithNoCase(value, kImmediate))
            Append(value.substr(kImmediate.size()), &record->immediate_members);
        else if (StartsWithNoCase(value, kDigest))
            Append(value.substr(kDigest.size()), &record->digest_members);
    }
    entry->attributes = std::move(others);
    record->digest_count = static_cast<std::int32_t>(record->digest_members.Count());
    record->immediate_count = static_cast<std::int32_t>(record->immediate_members.Count());
}

}  // namespace dl
