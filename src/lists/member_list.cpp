#include "lists/member_list.h"

#include <new>

#include "platform/address/address.h"

namespace dl
{

void MemberList::Reserve(std::size_t members, std::size_t bytes)
{
    places_.reserve(places_.size() + members);
    texts_.reserve(texts_.size() + bytes + members);
}

void MemberList::Add(std::string_view address, bool blocked)
{
    constexpr std::uint32_t kLargest = 0x7FFFFFFF;
    const std::size_t begin = texts_.size();
    if (address.size() >= kLargest - begin)
        throw std::bad_alloc();
    texts_.append(address);
    texts_ += '\0';
    places_.push_back({static_cast<std::uint32_t>(begin) & kLargest, blocked ? 1U : 0U});
}

std::size_t MemberList::Find(std::string_view address) const
{
    std::size_t member = 0;
    for (; member < Count(); ++member) {
        const std::size_t begin = places_[member].begin;
        if (EqualNoCase(std::string_view(texts_).substr(begin, End(member) - begin), address))
            break;
    }
    return member;
}

}  // namespace dl
