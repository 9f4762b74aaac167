// MemberList: the members of one list in one mode, in the directory's order.
//
// All addresses lie in one text, each with a NUL at its end: a cache of ten million members has no
// room for an object each. Filled once by the loader, then only read; owned by the list's record.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace dl
{

class MemberList
{
 public:
    // Makes room for so many members with so many bytes of addresses in all. Throws std::bad_alloc.
    void Reserve(std::size_t members, std::size_t bytes);
    // Throws std::bad_alloc, also when the addresses are more than 2 GiB.
    void Add(std::string_view address, bool blocked);

    [[nodiscard]] bool Empty() const { return places_.empty(); }
    [[nodiscard]] std::size_t Count() const { return places_.size(); }
    // As written in the directory; lives as long as the list.
    [[nodiscard]] const char* Address(std::size_t member) const
    {
        return texts_.c_str() + places_[member].begin;
    }
    // Receives mail but may not post.
    [[nodiscard]] bool IsBlocked(std::size_t member) const { return places_[member].blocked != 0; }
    // The first member of that address, without regard to case; Count() when there is none.
    [[nodiscard]] std::size_t Find(std::string_view address) const;

 private:
    struct Place {
        std::uint32_t begin : 31;
        std::uint32_t blocked : 1;
    };
    [[nodiscard]] std::size_t End(std::size_t member) const
    {
        return (member + 1 < places_.size() ? places_[member + 1].begin : texts_.size()) - 1;
    }

    std::string texts_;
    std::vector<Place> places_;
};

}  // namespace dl
