// dlctl list: create, show, check, delete.

#include <cstdio>
#include <memory>

#include "lists/directory_access.h"
#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/config/data_path.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/list_check.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

struct ListOptions {
    std::string list;
    std::string owner;
    std::string description;
    std::string handling;
    bool closed = false;
    bool auto_subscription = false;
    bool no_archive = false;
    bool json = false;
    bool fix = false;
};

// Attributes of a new entry; a value that is empty is left out.
std::vector<SearchAttribute> Attributes(
    std::initializer_list<std::pair<const char*, std::string>> pairs)
{
    std::vector<SearchAttribute> attributes;
    for (const auto& [name, value] : pairs)
        if (!value.empty())
            attributes.push_back({name, value});
    return attributes;
}

int CreateOwner(ldapClient& client, const ListOptions& options)
{
    const std::string alias = OwnerAlias(options.list);
    const auto attributes =
        Attributes({{"objectClass", "qvlistowner"}, {"mail", alias}, {"listowner", options.owner}});
    const int status = ExplainChange(client.AddEntry(ListEntryName(alias), attributes),
                                     "the owner alias " + alias);
    if (status == kExitOk)
        std::printf("%s created, owner %s\n", alias.c_str(), options.owner.c_str());
    return status;
}

// Whether mail to that address would be taken for mail to the owner, or a request, of another list.
bool IsAliasOfAList(const std::string& list)
{
    const std::size_t dash = list.rfind('-', list.rfind('@'));
    if (dash == std::string::npos || dash == 0)
        return false;
    const std::string_view rest = std::string_view(list).substr(dash + 1);
    return StartsWithNoCase(rest, "owner") || StartsWithNoCase(rest, "request");
}

int Create(const ListOptions& options)
{
    RT parsed;
    if (!IsListName(options.list))
        return kExitFailed;
    if (IsAliasOfAList(options.list))
        return Complain(kExitFailed,
                        "%s cannot be a list: mail to it goes to the owner or the request address "
                        "of another one",
                        options.list.c_str());
    if (!options.owner.empty() && RecipParse(options.owner, &parsed, 1) != 1)
        return Complain(kExitFailed, "the owner %s is no address", options.owner.c_str());
    ldapClient client;
    if (!OpenDirectory(&client))
        return kExitFailed;
    const auto attributes =
        Attributes({{"objectClass", "qvlist"},
                    {"mail", options.list},
                    {"description", options.description},
                    {"mode", options.closed ? "1" : "0"},
                    {"AutoSubscription", options.auto_subscription ? "YES" : "NO"},
                    {"InvalidPosting", options.handling},
                    {"archive", options.no_archive ? "0" : "1"}});
    // The folders first: a list without them is what the service trips over.
    int status = MakeListFolders(options.list);
    if (status == kExitOk)
        status = ExplainChange(client.AddEntry(ListEntryName(options.list), attributes),
                               "the list " + options.list);
    if (status == kExitOk) {
        std::printf("%s created, data in %s/%s\n", options.list.c_str(), DataPath().c_str(),
                    options.list.c_str());
        if (!options.owner.empty())
            status = CreateOwner(client, options);
    }
    client.ldapClientUnbind();
    return status;
}

Json ListJson(const SearchEntry& entry)
{
    Json shown = {{"dn", entry.dn}};
    std::int64_t immediate = 0;
    std::int64_t digest = 0;
    for (const SearchAttribute& attribute : entry.attributes) {
        if (EqualNoCase(attribute.name, "listmember")) {
            immediate += StartsWithNoCase(attribute.value, "Immediate;") ? 1 : 0;
            digest += StartsWithNoCase(attribute.value, "Digest;") ? 1 : 0;
        } else if (!EqualNoCase(attribute.name, "objectClass")) {
            Json& value = shown[std::string(attribute.name)];
            if (value.is_array())
                value.push_back(attribute.value);
            else
                value =
                    value.is_null() ? Json(attribute.value) : Json::array({value, attribute.value});
        }
    }
    if (shown.contains("mail") && shown["mail"].is_array())
        shown["mail"] = Json(shown["mail"][0]);
    shown["immediate_members"] = immediate;
    shown["digest_members"] = digest;
    return shown;
}

void PrintPairs(const Json& shown)
{
    for (const auto& [name, value] : shown.items())
        std::printf("%-22s %s\n", name.c_str(),
                    value.is_string() ? EscapeForLog(value.get<std::string>().c_str()).c_str()
                                      : Dump(value).c_str());
}

int Show(const ListOptions& options)
{
    ldapClient client;
    SearchReq found;
    if (!OpenDirectory(&client))
        return kExitFailed;
    switch (FindListEntry(client, options.list, &found)) {
        case ListFound::kYes:
            break;
        case ListFound::kNo:
            return kExitNotFound;
        case ListFound::kFailed:
            return kExitFailed;
    }
    Json shown = ListJson(found.entries.front());
    const SearchReq owner = FindOwner(client, options.list);
    for (const SearchEntry& entry : owner.entries)
        for (const SearchAttribute& attribute : entry.attributes)
            if (EqualNoCase(attribute.name, "listowner"))
                shown["owner"] = attribute.value;
    shown["data"] = DataPath() + "/" + options.list;
    if (options.json)
        PrintJson(shown);
    else
        PrintPairs(shown);
    return kExitOk;
}

int ShowAll(const ListOptions& options)
{
    ldapClient client;
    if (!OpenDirectory(&client))
        return kExitFailed;
    const SearchReq found = client.ldapClientSearch(nullptr, 2, false, "objectclass=qvlist");
    if (found.failed)
        return Complain(kExitFailed, "the directory could not be searched");
    Json all = Json::array();
    for (const SearchEntry& entry : found.entries)
        all.push_back(ListJson(entry));
    if (options.json) {
        PrintJson(all);
        return kExitOk;
    }
    std::printf("%-40s  %-6s  %9s  %9s\n", "LIST", "MODE", "IMMEDIATE", "DIGEST");
    for (const Json& list : all)
        std::printf("%-40s  %-6s  %9lld  %9lld\n", list.value("mail", "(no address)").c_str(),
                    list.contains("mode") && list["mode"] == "1" ? "closed" : "open",
                    static_cast<long long>(list["immediate_members"]),
                    static_cast<long long>(list["digest_members"]));
    return kExitOk;
}

int Check(const ListOptions& options)
{
    ldapClient client;
    SearchReq found;
    if (!IsListName(options.list) || !OpenDirectory(&client))
        return kExitFailed;
    const ListFound there = FindListEntry(client, options.list, &found);
    if (there != ListFound::kYes)
        return there == ListFound::kNo ? kExitNotFound : kExitFailed;
    if (options.fix && MakeListFolders(options.list) != kExitOk)
        return kExitFailed;
    const Json findings = ListFindings(client, options.list, found);
    if (options.json)
        PrintJson(findings);
    for (const Json& finding : findings)
        if (!options.json)
            std::printf("%s\n    mend: %s\n", finding.value("finding", "").c_str(),
                        finding.value("mend", "").c_str());
    if (findings.empty() && !options.json)
        std::printf("%s is in order\n", options.list.c_str());
    return findings.empty() ? kExitOk : kExitFailed;
}

// Removes what was found to be a list, and never another entry that has the address; then its owner
// alias.
int Delete(const ListOptions& options)
{
    ldapClient client;
    SearchReq found;
    if (!OpenDirectory(&client))
        return kExitFailed;
    const ListFound there = FindListEntry(client, options.list, &found);
    if (there != ListFound::kYes)
        return there == ListFound::kNo ? kExitNotFound : kExitFailed;
    const Json shown = ListJson(found.entries.front());
    const int status =
        ExplainChange(client.DeleteEntry(found.entries.front().dn), "the list " + options.list);
    if (status != kExitOk)
        return status;
    std::printf("%s deleted, with %lld member(s); its data stays in %s/%s\n", options.list.c_str(),
                static_cast<long long>(shown["immediate_members"]) +
                    static_cast<long long>(shown["digest_members"]),
                DataPath().c_str(), options.list.c_str());
    const SearchReq owner = FindOwner(client, options.list);
    if (owner.failed)
        return Complain(kExitFailed, "the directory could not be searched for the owner alias");
    for (const SearchEntry& entry : owner.entries) {
        const ModifyResult gone = client.DeleteEntry(entry.dn);
        if (gone != ModifyResult::kDone && gone != ModifyResult::kNotThere)
            return ExplainChange(gone, "the owner alias " + OwnerAlias(options.list));
    }
    client.ldapClientUnbind();
    return kExitOk;
}

}  // namespace

void AddListCommands(CLI::App* program, int* status)
{
    auto options = std::make_shared<ListOptions>();
    CLI::App* list = program->add_subcommand("list", "Mailing lists in the directory");
    list->require_subcommand(0, 1);
    list->add_flag("--json", options->json, "As JSON");
    list->callback([=] {
        if (list->get_subcommands().empty())
            *status = ShowAll(*options);
    });
    const auto add = [&](const char* name, const char* help, int (*run)(const ListOptions&)) {
        CLI::App* command = list->add_subcommand(name, help);
        command->add_option("list", options->list, "The list's address")->required();
        command->callback([=] { *status = run(*options); });
        return command;
    };
    CLI::App* create =
        add("create", "Make a list: its entry, owner alias and data folders", Create);
    create->add_option("--owner", options->owner, "The owner's address");
    create->add_option("--description", options->description, "What the list is about");
    create->add_option("--invalid-posting", options->handling, "What happens to a refused posting")
        ->check(CLI::IsMember({"bounce", "forward", "discard", "both"}))
        ->default_val("both");
    create->add_flag("--closed", options->closed, "Only members may post");
    create->add_flag("--auto-subscription", options->auto_subscription,
                     "People may join by mail, after confirming");
    create->add_flag("--no-archive", options->no_archive, "Keep no archive");
    add("show", "Show a list's settings", Show)->add_flag("--json", options->json, "As JSON");
    CLI::App* check = add("check", "Look for what is wrong with a list", Check);
    check->add_flag("--fix", options->fix, "Make missing folders and mend their modes");
    check->add_flag("--json", options->json, "As JSON");
    add("delete", "Remove a list from the directory; its data stays", Delete);
}

}  // namespace dl
