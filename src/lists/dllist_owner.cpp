// Who owns a list: the one question of dllist to the directory that is not for lists.

#include "lists/dllist.h"
#include "lists/within_memory.h"
#include "platform/address/address.h"
#include "platform/config/config.h"
#include "platform/log/format.h"
#include "platform/log/log.h"

namespace dl
{
namespace
{

constexpr int kSubtree = 2;

std::string PostmasterAddress()
{
    const auto read = [](const char* key) {
        return GetPrivateProfileString("Connection", key, "", 128, kMainConfig);
    };
    return FormatText("postmaster@%s.%s", read("GatewayHostName").c_str(),
                      read("GatewayDomain").c_str());
}

// The owner's address among the alias entries: an alias and an owner need not stand in the same
// entry. Else null, and what is missing. A value without a text is none.
const std::string* OwnerAmong(const SearchReq& found, const std::string& alias,
                              const char** missing)
{
    bool matched = false;
    const std::string* owner = nullptr;
    for (const SearchEntry& entry : found.entries) {
        for (const SearchAttribute& attribute : entry.attributes) {
            if (EqualNoCase(attribute.name, "mail") && EqualNoCase(attribute.value, alias))
                matched = true;
            else if (EqualNoCase(attribute.name, "listowner") && !attribute.value.empty())
                owner = &attribute.value;
        }
        if (matched && owner)
            return owner;
    }
    *missing = owner ? "its mail is not exactly that" : "it has no listowner";
    return nullptr;
}

// Not the same as "no alias": the postmaster would get the list's mail until the next refresh.
void LogNoAnswer(const std::string& list)
{
    DlLog(1, "Could not look up the owner of mailing list %s", list.c_str());
}

}  // namespace

const char* dllist::GetListOwner(const std::string& list)
{
    look_up_failed_ = false;
    const std::int32_t index = Find(list);
    if (index < 0)
        return nullptr;
    _mailinglist* record = &records_[static_cast<std::size_t>(index)];
    const auto find = [&] { return FindOwner(record); };
    const auto no_answer = [record] { LogNoAnswer(record->name); };
    const bool known = record->owner ||
                       (MayLookUp() && EndLookUp(WithinMemory(Found::kNoAnswer, find, no_answer)));
    return known ? record->owner->c_str() : nullptr;
}

dllist::Found dllist::FindOwner(_mailinglist* record)
{
    RT parsed;
    if (RecipParse(record->name, &parsed, 1) != 1) {
        DlLog(1, "Mailing list %s has no owner: its name is not a mail address",
              record->name.c_str());
        return Found::kNo;
    }
    const std::string alias = parsed.addresses[0].local + "-owner@" + parsed.addresses[0].domain;
    Clear_RT(&parsed);
    ldapClient client;
    if (!Connect(&client))
        return Found::kNoAnswer;
    const SearchReq found = client.ldapClientSearch(
        nullptr, kSubtree, false,
        FormatText("(&(objectclass=qvlistowner)(mail=%s))", EscapeFilterValue(alias).c_str()));
    client.ldapClientUnbind();
    if (found.failed) {
        LogNoAnswer(record->name);
        return Found::kNoAnswer;
    }
    if (found.Empty()) {
        DlLog(1, "Missing list-owner alias for %s, use postmaster instead.", record->name.c_str());
        record->owner = PostmasterAddress();
        return Found::kYes;
    }
    const char* missing = "";
    const std::string* owner = OwnerAmong(found, alias, &missing);
    if (!owner) {
        DlLog(1, "Owner alias %s of mailing list %s names no owner: %s", alias.c_str(),
              record->name.c_str(), missing);
        return Found::kNo;
    }
    record->owner = *owner;
    DlLog(6, "List owner is: %s", owner->c_str());
    return Found::kYes;
}

}  // namespace dl
