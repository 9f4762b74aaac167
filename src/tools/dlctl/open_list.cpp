#include "tools/dlctl/open_list.h"

#include <algorithm>
#include <unordered_set>

#include "lists/directory_access.h"
#include "tools/dlctl/progress.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

constexpr char kAttribute[] = "listmember";
constexpr std::size_t kBatch = 1000;  // changes sent in one request

bool IsMeanwhile(ModifyResult result)
{
    return result == ModifyResult::kAlready || result == ModifyResult::kNotThere;
}

std::ptrdiff_t Signed(std::size_t count)
{
    return static_cast<std::ptrdiff_t>(count);
}

}  // namespace

bool ParseMember(std::string_view value, Member* member)
{
    const auto cut = [&value](std::string_view prefix) {
        const bool there = StartsWithNoCase(value, prefix);
        value.remove_prefix(there ? prefix.size() : 0);
        return there;
    };
    member->digest = cut("Digest;");
    if (!member->digest && !cut("Immediate;"))
        return false;
    member->blocked = cut("Blocked;");
    member->address = value;
    return true;
}

int OpenList::Open(const std::string& list)
{
    list_ = list;
    return OpenDirectory(&client_) ? Read() : kExitFailed;
}

void OpenList::PlanAdd(const Member& member)
{
    changes_.push_back({AttributeChange::Operation::kAdd, kAttribute, member.Value()});
    values_.emplace(LowerCase(member.address), member.Value());
}

bool OpenList::PlanRemove(const std::string& address)
{
    const auto [from, to] = values_.equal_range(LowerCase(address));
    for (auto it = from; it != to; ++it)
        changes_.push_back({AttributeChange::Operation::kDelete, kAttribute, it->second});
    return values_.erase(LowerCase(address)) > 0;
}

int OpenList::Send(std::size_t* done, std::size_t* already)
{
    const std::size_t planned = changes_.size();
    Progress progress("members", planned);
    while (!changes_.empty()) {
        progress.Update(planned - changes_.size());
        const std::vector<AttributeChange> batch = Batch();
        ModifyResult result = client_.ldapClientModify(dn_, batch);
        if (result == ModifyResult::kDone) {
            changes_.erase(changes_.begin(), changes_.begin() + Signed(batch.size()));
            *done += batch.size();
            continue;
        }
        if (!IsMeanwhile(result))
            return ExplainChange(result, "the members of " + list_);
        const std::size_t before = changes_.size();
        if (const int status = Read())
            return status;
        DropWhatIsSo();
        *already += before - changes_.size();
        if (changes_.size() == before)
            result = SendEach(batch, done, already);  // its idea of "the same value" is another
        if (!IsMeanwhile(result) && result != ModifyResult::kDone)
            return ExplainChange(result, "the members of " + list_);
    }
    client_.ldapClientUnbind();
    return kExitOk;
}

int OpenList::Read()
{
    SearchReq found;
    const ListFound there = FindListEntry(client_, list_, &found);
    if (there != ListFound::kYes)
        return there == ListFound::kNo ? kExitNotFound : kExitFailed;
    dn_ = found.entries.front().dn;
    order_.clear();
    values_.clear();
    for (const SearchAttribute& attribute : found.entries.front().attributes) {
        Member member;
        if (EqualNoCase(attribute.name, kAttribute) && ParseMember(attribute.value, &member)) {
            order_.push_back(member);
            values_.emplace(LowerCase(member.address), attribute.value);
        }
    }
    return kExitOk;
}

// The next changes, not yet taken from those that are planned.
std::vector<AttributeChange> OpenList::Batch() const
{
    return {changes_.begin(), changes_.begin() + Signed(std::min(changes_.size(), kBatch))};
}

void OpenList::DropWhatIsSo()
{
    std::unordered_set<std::string> there;
    for (const auto& [address, value] : values_)
        there.insert(LowerCase(value));
    std::erase_if(changes_, [&](const AttributeChange& change) {
        return (there.count(LowerCase(change.value)) > 0) ==
               (change.operation == AttributeChange::Operation::kAdd);
    });
}

// Takes the batch from what is planned, one change a request.
ModifyResult OpenList::SendEach(const std::vector<AttributeChange>& batch, std::size_t* done,
                                std::size_t* already)
{
    changes_.erase(changes_.begin(), changes_.begin() + Signed(batch.size()));
    for (const AttributeChange& change : batch) {
        const ModifyResult result = client_.ldapClientModify(dn_, {change});
        if (result == ModifyResult::kDone)
            ++*done;
        else if (IsMeanwhile(result))
            ++*already;
        else
            return result;
    }
    return ModifyResult::kDone;
}

}  // namespace dl
