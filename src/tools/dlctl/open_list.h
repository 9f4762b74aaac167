// A list whose members are looked at or changed by a command, and the form of a member's value.
//
// It holds the members as they stood at the last reading. Changes are planned first and sent
// together; what somebody else does to the list meanwhile stands.
#pragma once

#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/address/address.h"
#include "platform/directory/directory.h"

namespace dl
{

struct Member {
    std::string address;
    bool digest = false;
    bool blocked = false;

    [[nodiscard]] std::string Value() const
    {
        return std::string(digest ? "Digest;" : "Immediate;") + (blocked ? "Blocked;" : "") +
               address;
    }
};

// Reads a value of the directory, or of an export; false when it is none.
[[nodiscard]] bool ParseMember(std::string_view value, Member* member);

class OpenList
{
 public:
    // kExitOk, or the exit status.
    [[nodiscard]] int Open(const std::string& list);

    [[nodiscard]] const std::vector<Member>& Members() const { return order_; }
    [[nodiscard]] bool Has(const std::string& address) const
    {
        return values_.count(LowerCase(address)) > 0;
    }
    void PlanAdd(const Member& member);
    // All values of the address, as they stand in the directory. False when there is none.
    bool PlanRemove(const std::string& address);

    // Sends what was planned, many changes in a request. Counts those that are done, and those that
    // somebody else has made meanwhile: the service changes members, too. The exit status;
    // complains.
    [[nodiscard]] int Send(std::size_t* done, std::size_t* already);

 private:
    int Read();
    [[nodiscard]] std::vector<AttributeChange> Batch() const;
    void DropWhatIsSo();
    ModifyResult SendEach(const std::vector<AttributeChange>& batch, std::size_t* done,
                          std::size_t* already);

    std::string list_;
    std::string dn_;
    ldapClient client_;
    std::vector<Member> order_;
    std::unordered_multimap<std::string, std::string> values_;  // by address in lower case
    std::deque<AttributeChange> changes_;
};

}  // namespace dl
