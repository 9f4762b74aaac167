// ChangeStamps: the marks by which a server's entries show that they have not changed.
//
// entryCSN (OpenLDAP's change sequence number) is another one after each change. modifyTimestamp
// (RFC 4512, 3.4.2) counts seconds of the server's clock: it stands for one content only when that
// second was over before the entry was read. Made for one reading; pure.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "platform/directory/directory.h"

namespace dl
{

class ChangeStamps
{
 public:
    // Of entries that are read from `now` on.
    explicit ChangeStamps(std::time_t now);

    // The attributes to ask for.
    static const std::vector<std::string>& Attributes();
    // Takes them out of `entry`: what they say is not the list's. Empty when they do not tell a
    // later content from this one.
    [[nodiscard]] std::string Take(SearchEntry* entry) const;

 private:
    std::string settled_before_;  // "20261121080839"
};

}  // namespace dl
