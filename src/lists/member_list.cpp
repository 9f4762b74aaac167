#include "lists/member_list.h"

#include <algorithm>
#include <functional>
#include <unordered_map>

#include "platform/address/address.h"

namespace dl
{
namespace
{

// A block ends behind about one address in 64, at any rate before its offsets end.
constexpr std::size_t kMembersInBlock = 64;
constexpr std::size_t kMostBytesInBlock = 16'384;
constexpr unsigned kBlocked = 0x8000;

}  // namespace

void MemberList::Add(std::string_view address, bool blocked)
{
    if (!open_)
        blocks_.push_back({Count(), std::make_shared<Block>()});
    open_ = true;
    Block& block = *blocks_.back().block;
    block.members.push_back(
        static_cast<std::uint16_t>(block.text.size() | (blocked ? kBlocked : 0U)));
    block.text.append(address).push_back('\0');
    if (std::hash<std::string_view>{}(address) % kMembersInBlock == 0 ||
        block.text.size() >= kMostBytesInBlock)
        Finish();
}

void MemberList::Finish()
{
    if (open_) {
        blocks_.back().block->text.shrink_to_fit();
        blocks_.back().block->members.shrink_to_fit();
    } else {
        blocks_.shrink_to_fit();
    }
    open_ = false;
}

void MemberList::ShareWith(const MemberList& other)
{
    std::unordered_map<std::string_view, std::shared_ptr<Block>> others;
    for (const Place& place : other.blocks_)
        others.emplace(place.block->text, place.block);
    for (Place& place : blocks_) {
        const auto same = others.find(place.block->text);
        if (same != others.end() && *same->second == *place.block)
            place.block = same->second;
    }
}

const MemberList::Place& MemberList::PlaceOf(std::size_t member) const
{
    const auto behind = std::upper_bound(
        blocks_.begin(), blocks_.end(), member,
        [](std::size_t wanted, const Place& place) { return wanted < place.first; });
    return *(behind - 1);
}

std::size_t MemberList::Block::Begin(std::size_t member) const
{
    return members[member] & ~kBlocked;
}

const char* MemberList::Address(std::size_t member) const
{
    const Place& place = PlaceOf(member);
    return place.block->text.c_str() + place.block->Begin(member - place.first);
}

bool MemberList::IsBlocked(std::size_t member) const
{
    const Place& place = PlaceOf(member);
    return (place.block->members[member - place.first] & kBlocked) != 0;
}

std::size_t MemberList::Find(std::string_view address) const
{
    for (const Place& place : blocks_) {
        const Block& block = *place.block;
        const std::string_view text = block.text;
        for (std::size_t i = 0; i < block.members.size(); ++i) {
            const std::size_t begin = block.Begin(i);
            const std::size_t end = i + 1 < block.members.size() ? block.Begin(i + 1) : text.size();
            if (EqualNoCase(text.substr(begin, end - 1 - begin), address))
                return place.first + i;
        }
    }
    return Count();
}

}  // namespace dl
