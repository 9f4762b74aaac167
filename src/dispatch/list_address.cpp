#include "dispatch/list_address.h"

#include <new>

#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/log/format.h"

namespace dl
{
namespace
{

constexpr std::size_t kOwnerLength = 6;    // "-owner"
constexpr std::size_t kRequestLength = 8;  // "-request"

// What follows the suffix dash; empty when there is none.
std::string_view TextAfterDash(std::string_view address)
{
    const std::size_t at = address.rfind('@');
    if (at == std::string_view::npos || at == 0)
        return {};
    const std::size_t dash = address.rfind('-', at);
    if (dash == std::string_view::npos || dash == 0)
        return {};
    return address.substr(dash + 1);
}

ListAddress CachedAs(const std::string& list, AddressKind kind)
{
    if (!ListCache().IsCached(list))
        return {};
    return {true, kind, list};
}

ListAddress CachedWithout(const ParsedAddress& address, std::size_t suffix, AddressKind kind)
{
    if (address.local.size() < suffix)
        return {};
    const auto length = static_cast<int>(address.local.size() - suffix);
    std::string list;
    try {
        list = FormatText("%.*s@%s", length, address.local.c_str(), address.domain.c_str());
    } catch (const std::bad_alloc&) {
        return {};
    }
    return CachedAs(list, kind);
}

bool HasMember(const std::string& list, const char* mode, const std::string& address)
{
    dllist& cache = ListCache();
    for (const char* member = cache.GetFirstMember(list, mode); member;
         member = cache.GetNextMember(list, mode))
        if (EqualNoCase(member, address))
            return true;
    return false;
}

}  // namespace

ListAddress ClassifyListAddress(const std::string& address)
{
    if (ListCache().CacheEmpty() || address == "<>")
        return {};
    RT record;
    if (RecipParse(address, &record, 1) != 1)
        return {};
    const ParsedAddress parsed = record.addresses[0];
    Clear_RT(&record);
    const std::string_view suffix = TextAfterDash(address);
    if (StartsWithNoCase(suffix, "owner"))
        return CachedWithout(parsed, kOwnerLength, AddressKind::kOwner);
    if (StartsWithNoCase(suffix, "request"))
        return CachedWithout(parsed, kRequestLength, AddressKind::kRequest);
    return CachedAs(parsed.full, AddressKind::kList);
}

bool IsListMember(const std::string& list, const std::string& address)
{
    return !ListCache().CacheEmpty() &&
           (HasMember(list, "Immediate", address) || HasMember(list, "Digest", address));
}

int GetListMode(const std::string& list)
{
    return ListCache().CacheEmpty() ? -1 : ListCache().GetMode(list);
}

bool IsRequestAddress(std::string* address)
{
    *address = LowerCase(*address);
    return address->find("-request") != std::string::npos;
}

bool IsOwnerAddress(const std::string& address)
{
    RT record;
    bool owner = false;
    if (RecipParse(address, &record, 1) == 1) {
        const std::string& local = record.addresses[0].local;
        const std::size_t dash = local.rfind('-');
        owner = dash != std::string::npos && EqualNoCase(local.substr(dash + 1), "owner");
    }
    Clear_RT(&record);
    return owner;
}

}  // namespace dl
