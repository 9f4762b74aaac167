// dlctl check: the directory and every list in it. Two searches for all: what is looked up for each
// list lies in maps.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <unordered_map>
#include <unordered_set>

#include "lists/directory_access.h"
#include "platform/address/address.h"
#include "platform/config/config.h"
#include "platform/config/data_path.h"
#include "platform/log/format.h"
#include "schedule/due_file.h"
#include "tools/dlctl/check.h"

namespace dl
{
namespace
{

constexpr int kSubtree = 2;

struct Place {
    std::string alias;
    bool has_owner;
    bool usable;
};
using Owners = std::unordered_map<std::string, Place>;  // by the alias in lower case

std::string ValueOf(const SearchEntry& entry, const char* name)
{
    for (const SearchAttribute& attribute : entry.attributes)
        if (EqualNoCase(attribute.name, name))
            return attribute.value;
    return "";
}

bool IsAddress(const std::string& text)
{
    RT parsed;
    return RecipParse(text, &parsed, 1) == 1;
}

Owners ReadOwners(const SearchReq& found)
{
    Owners owners;
    for (const SearchEntry& entry : found.entries) {
        const std::string owner = ValueOf(entry, "listowner");
        for (const SearchAttribute& attribute : entry.attributes)
            if (EqualNoCase(attribute.name, "mail"))
                owners.emplace(LowerCase(attribute.value),
                               Place{attribute.value, !owner.empty(), IsAddress(owner)});
    }
    return owners;
}

void CheckOwner(const std::string& list, const Owners& owners, CheckReport* report)
{
    const std::size_t at = list.rfind('@');
    const std::string alias = list.substr(0, at) + "-owner" + list.substr(at);
    const auto place = owners.find(LowerCase(alias));
    if (place == owners.end())
        report->Warn(
            "the list " + list + " has no owner alias " + alias + ", the postmaster gets its mail",
            "add an entry of class qvlistowner with mail " + alias + " and listowner");
    else if (!place->second.has_owner)
        report->Fail(
            "the owner alias " + alias + " names no owner: mail for the owner cannot be sent",
            "add the attribute listowner with the owner's address");
    else if (!place->second.usable)
        report->Warn("the owner of " + list + " is no mail address",
                     "correct listowner of " + alias);
}

struct ValueRule {
    const char* attribute;
    const char* pattern;
    const char* mend;
};
constexpr ValueRule kValueRules[] = {
    {"mode", "[01]", "write 0 (open) or 1 (closed)"},
    {"archive", "[01]", "write 1, or 0 for no archive"},
    {"frequency", "daily|weekly|monthly", "write daily, weekly or monthly"},
    {"DigestDeliverTime", "([01]?[0-9]|2[0-3]):[0-5]?[0-9]", "write hour:minute, as 06:30"},
    {"whichday", "[1-9]|[12][0-9]|3[01]", "write 1 to 7 (weekly) or 1 to 31 (monthly)"},
    {"maxdigestsize", "[0-9]+", "write a number of Kbytes, 0 for no limit"},
    {"InvalidPosting", "bounce|forward|discard|both", "write bounce, forward, discard or both"},
    {"AutoSubscription", "yes|no", "write YES or NO"},
    {"UseMimeDigest", "yes|no", "write YES or NO"},
    {"RemoveReturnReceiptTo", "yes|no", "write YES or NO"},
    {"postingpermission", "allow|block", "write allow or block"},
};

constexpr const char* kTextFiles[] = {"subtxtpath", "unsubtxtpath", "welcometxtpath",
                                      "disclaimertxtpath", "disclaimerhtmlpath"};

void CheckValue(const std::string& list, const SearchAttribute& attribute, CheckReport* report)
{
    for (const ValueRule& rule : kValueRules)
        if (EqualNoCase(attribute.name, rule.attribute) &&
            !Matches(attribute.value.substr(0, 1000), rule.pattern))
            report->Warn(FormatText("%s of the list %s is \"%.100s\"", rule.attribute, list.c_str(),
                                    attribute.value.c_str()),
                         rule.mend);
    for (const char* name : kTextFiles) {
        if (!EqualNoCase(attribute.name, name))
            continue;
        const bool readable = access(attribute.value.c_str(), R_OK) == 0;
        if (attribute.value.empty() || attribute.value.front() != '/')
            report->Warn(FormatText("%s of the list %s does not begin with '/': %s", name,
                                    list.c_str(), attribute.value.c_str()),
                         "write the whole path");
        else if (!readable)
            report->Warn(FormatText("%s of the list %s cannot be read: %s", name, list.c_str(),
                                    attribute.value.c_str()),
                         "write the file, readable for the service's user, or remove the value");
    }
}

// A value of listmember without its prefixes; empty when it has none.
std::string MemberAddress(std::string_view value)
{
    bool mode = false;
    for (const std::string_view prefix : {"Immediate;", "Digest;"}) {
        if (mode || !StartsWithNoCase(value, prefix))
            continue;
        value.remove_prefix(prefix.size());
        mode = true;
    }
    if (mode && StartsWithNoCase(value, "Blocked;"))
        value.remove_prefix(8);
    return mode ? std::string(value) : "";
}

void CheckMembers(const std::string& list, const SearchEntry& entry, CheckReport* report)
{
    std::unordered_set<std::string> seen;
    std::size_t bad = 0;
    std::size_t twice = 0;
    std::string first;
    for (const SearchAttribute& attribute : entry.attributes) {
        if (!EqualNoCase(attribute.name, "listmember"))
            continue;
        const std::string address = MemberAddress(attribute.value);
        if (address.empty() || !IsAddress(address)) {
            first = bad++ == 0 ? attribute.value : first;
            continue;
        }
        twice += seen.insert(LowerCase(address)).second ? 0 : 1;
    }
    if (bad != 0)
        report->Warn(FormatText("%zu member value(s) of the list %s cannot be used, the first is "
                                "\"%.100s\"",
                                bad, list.c_str(), first.c_str()),
                     "write listmember as Immediate;ADDRESS or Digest;ADDRESS");
    if (twice != 0)
        report->Warn(FormatText("%zu member(s) of the list %s stand in it twice and get mail twice",
                                twice, list.c_str()),
                     "dlctl member remove, then dlctl member add");
}

void CheckListFolders(const std::string& list, bool archived, const std::string& frequency,
                      CheckReport* report)
{
    const std::string data = DataPath();
    if (data.empty() || access(data.c_str(), F_OK) != 0)
        return;  // told before
    const std::string role = "the folder of the list " + list + ",";
    if (!CheckFolder({role.c_str(), data + "/" + list, 0750, data}, report) &&
        access((data + "/" + list).c_str(), F_OK) != 0)
        return;
    const bool digests =
        CheckFolder({role.c_str(), data + "/" + list + "/digest", 0750, data}, report);
    if (archived) {
        // Its pages may be there for a web server to read.
        const std::string archive = data + "/" + list + "/archive";
        if (CheckFolder({role.c_str(), archive, 0755, data}, report))
            CheckArchive(list, report);
    }
    if (digests)
        CheckDueFile({"digest", DigestDuePath(list), frequency}, report);
}

void CheckList(const SearchEntry& entry, const Owners& owners,
               std::unordered_set<std::string>* names, CheckReport* report)
{
    const std::string list = ValueOf(entry, "mail");
    if (list.empty())
        return report->Fail("the list entry " + entry.dn + " has no mail attribute",
                            "add mail with the list's address, or remove the entry");
    ++report->lists;
    if (!IsSafeFolderName(list))
        return report->Fail("the list " + list + " cannot be the name of a folder",
                            "give it an address without '/' and without a '.' at its beginning");
    if (!names->insert(LowerCase(list)).second)
        return report->Fail("several entries are the list " + list + ", the first is used",
                            "remove the others: " + entry.dn);
    for (const SearchAttribute& attribute : entry.attributes)
        CheckValue(list, attribute, report);
    CheckMembers(list, entry, report);
    CheckOwner(list, owners, report);
    CheckListFolders(list, ValueOf(entry, "archive") != "0", ValueOf(entry, "frequency"), report);
}

bool Open(ldapClient* client, CheckReport* report)
{
    const CauseOfFailure cause;
    const DirectoryLogin login = ReadDirectoryLogin(kMainConfig);
    const std::string file = GetPrivateProfileString("Ldap", "File", "", 4096, kMainConfig);
    if (client->ldapClientConnect(login.host, login.port) != 0) {
        report->Fail("the directory cannot be reached" + cause.Text(),
                     file.empty()
                         ? "start the LDAP server, or correct HostName, Port and the TLS keys in "
                           "section Ldap"
                         : "write a sound LDIF file, or correct File in section Ldap");
        return false;
    }
    if (client->ldapClientBind(login.user, login.password) == 0)
        return true;
    report->Fail("the directory refuses the service's name" + cause.Text(),
                 "correct Username and Password in section Ldap");
    return false;
}

// The attributes by which lists are described; a server that lacks one refuses them.
void CheckSchema(ldapClient* client, CheckReport* report)
{
    const CauseOfFailure cause;
    std::vector<std::string> unknown;
    std::vector<std::string> names = {"mail", "description", "listmember", "listowner"};
    for (const ValueRule& rule : kValueRules)
        names.emplace_back(rule.attribute);
    names.insert(names.end(), std::begin(kTextFiles), std::end(kTextFiles));
    for (const char* name : {"x-whitelist", "x-ipwhitelist", "x-kvtblaction", "x-spamaction"})
        names.emplace_back(name);
    if (!client->FindUnknownAttributes(names, &unknown))
        return report->CannotTell("the directory's schema cannot be read",
                                  "let the service's name read cn=Subschema");
    std::string all;
    for (const std::string& name : unknown)
        all += (all.empty() ? "" : ", ") + name;
    if (!all.empty())
        report->Fail("the directory's schema lacks " + all,
                     "load deploy/ldap/dlmanager.schema, or dlmanager.ldif with ldapadd");
}

bool Search(ldapClient* client, const char* filter, SearchReq* found, CheckReport* report)
{
    const CauseOfFailure cause;
    *found = client->ldapClientSearch(nullptr, kSubtree, false, filter);
    if (!found->failed)
        return true;
    const bool limit = cause.Text().find("limit") != std::string::npos;
    report->Fail("the lists cannot be read from the directory" + cause.Text(),
                 limit
                     ? "lift the size limit for the service's name (limits dn.exact=... "
                       "size=unlimited)"
                     : "correct BaseDN in section Ldap, and let the service's name read below it");
    return false;
}

}  // namespace

void CheckDirectoryAndLists(CheckReport* report)
{
    ldapClient client;
    SearchReq lists;
    SearchReq owners;
    if (!Open(&client, report))
        return;
    CheckSchema(&client, report);
    if (!Search(&client, "(objectclass=qvlist)", &lists, report) ||
        !Search(&client, "(objectclass=qvlistowner)", &owners, report))
        return;
    if (lists.Empty())
        report->Warn("there is no list in the directory",
                     "dlctl list create, or correct BaseDN in section Ldap");
    const Owners by_alias = ReadOwners(owners);
    std::unordered_set<std::string> names;
    for (const SearchEntry& entry : lists.entries)
        CheckList(entry, by_alias, &names, report);
}

}  // namespace dl
