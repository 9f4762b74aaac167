// What a recipient address is: a list, a list's owner alias, a list's request address, or none of
// ours.
//
// Answered from the process's list cache, which may ask the directory for a list that it does not
// know. Nothing here logs.
#pragma once

#include <string>

namespace dl
{

enum class AddressKind {
    kList = 0,     // <list>@<domain>
    kOwner = 1,    // <list>-owner@<domain>
    kRequest = 2,  // <list>-request@<domain>
};

struct ListAddress {
    bool found = false;  // false: no list, and nothing else is set
    AddressKind kind = AddressKind::kList;
    std::string list;  // the list's address
};

// The dash that may begin a suffix is the last one before the last '@' of the text as given; one in
// first position does not count. Longer text that begins with "owner" or "request" counts as that
// suffix: alpha-owners@d is looked up as the owner of alpha-@d.
[[nodiscard]] ListAddress ClassifyListAddress(const std::string& address);

// False, or -1, while no list has been loaded.
[[nodiscard]] bool IsListMember(const std::string& list, const std::string& address);
[[nodiscard]] int GetListMode(const std::string& list);

// Stand-alone tests of the text alone. The first turns its argument to lower case.
[[nodiscard]] bool IsRequestAddress(std::string* address);
[[nodiscard]] bool IsOwnerAddress(const std::string& address);

}  // namespace dl
