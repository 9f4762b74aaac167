// MemberList: the members of one list in one mode, in the directory's order.
//
// Addresses lie behind each other in blocks of some dozens: a cache of ten million members has no
// room for an object each. Where a block ends follows from the addresses in it, so that a list that
// was read again after a change has most of its blocks in common with the old one, and can share
// them while both are there. Filled once by the loader, up to Finish, then only read; owned by the
// list's record.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace dl
{

class MemberList
{
 public:
    // Both throw std::bad_alloc.
    void Add(std::string_view address, bool blocked);
    void Finish();
    // Gives up what `other` has, too, and uses that.
    void ShareWith(const MemberList& other);

    [[nodiscard]] bool Empty() const { return blocks_.empty(); }
    [[nodiscard]] std::size_t Count() const
    {
        return blocks_.empty() ? 0 : blocks_.back().first + blocks_.back().block->members.size();
    }
    // As written in the directory; lives as long as the list.
    [[nodiscard]] const char* Address(std::size_t member) const;
    // Receives mail but may not post.
    [[nodiscard]] bool IsBlocked(std::size_t member) const;
    // The first member of that address, without regard to case; Count() when there is none.
    [[nodiscard]] std::size_t Find(std::string_view address) const;

 private:
    struct Block {
        std::string text;                    // each address with a NUL behind it
        std::vector<std::uint16_t> members;  // where each begins, and the highest bit: blocked

        [[nodiscard]] std::size_t Begin(std::size_t member) const;
        bool operator==(const Block&) const = default;
    };
    struct Place {
        std::size_t first;  // member of the block, counted over all
        std::shared_ptr<Block> block;
    };
    [[nodiscard]] const Place& PlaceOf(std::size_t member) const;

    std::vector<Place> blocks_;
    bool open_ = false;  // the last block takes more
};

}  // namespace dl
