// dlctl list: create, show, check, delete.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "lists/directory_access.h"
#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/config/data_path.h"
#include "platform/log/format.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

constexpr mode_t kFolderMode = 0750;
constexpr const char* kFolders[] = {"", "/digest", "/archive"};

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

// Makes the list's data folders; they belong to the owner of the data folder, so that the service
// may use what root has made.
int MakeFolders(const std::string& list)
{
    struct stat root {
    };
    if (stat(DataPath().c_str(), &root) != 0)
        return Complain(kExitFailed, "the data folder %s is missing (DbPath in section DlManager)",
                        DataPath().c_str());
    for (const char* folder : kFolders) {
        const std::string path = DataPath() + "/" + list + folder;
        if (mkdir(path.c_str(), kFolderMode) != 0 && errno != EEXIST)
            return Complain(kExitFailed, "the folder %s cannot be made: %s", path.c_str(),
                            std::generic_category().message(errno).c_str());
        if (chmod(path.c_str(), kFolderMode) != 0 ||
            (geteuid() == 0 && lchown(path.c_str(), root.st_uid, root.st_gid) != 0))
            return Complain(kExitFailed, "the folder %s cannot be given its mode and owner",
                            path.c_str());
    }
    return kExitOk;
}

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

std::string AliasEntryName(const std::string& alias)
{
    return ListEntryName(alias);
}

std::string OwnerAlias(const std::string& list)
{
    const std::size_t at = list.rfind('@');
    return FormatText("%s-owner@%s", list.substr(0, at).c_str(), list.substr(at + 1).c_str());
}

int CreateOwner(ldapClient& client, const ListOptions& options)
{
    const std::string alias = OwnerAlias(options.list);
    const auto attributes =
        Attributes({{"objectClass", "qvlistowner"}, {"mail", alias}, {"listowner", options.owner}});
    const int status = ExplainChange(client.AddEntry(AliasEntryName(alias), attributes),
                                     "the owner alias " + alias);
    if (status == kExitOk)
        std::printf("%s created, owner %s\n", alias.c_str(), options.owner.c_str());
    return status;
}

int Create(const ListOptions& options)
{
    RT parsed;
    if (!IsListName(options.list))
        return kExitFailed;
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
    int status = MakeFolders(options.list);
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
            shown[std::string(attribute.name)] = attribute.value;
        }
    }
    shown["immediate_members"] = immediate;
    shown["digest_members"] = digest;
    return shown;
}

void PrintPairs(const Json& shown)
{
    for (const auto& [name, value] : shown.items())
        std::printf("%-22s %s\n", name.c_str(),
                    value.is_string() ? value.get<std::string>().c_str() : Dump(value).c_str());
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
    const SearchReq owner =
        client.ldapClientSearch(nullptr, 2, false,
                                FormatText("(&(objectclass=qvlistowner)(mail=%s))",
                                           EscapeFilterValue(OwnerAlias(options.list)).c_str()));
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
                    list.value("mode", "0") == "1" ? "closed" : "open",
                    static_cast<long long>(list["immediate_members"]),
                    static_cast<long long>(list["digest_members"]));
    return kExitOk;
}

// One finding with its mend; counts it.
struct Findings {
    Json all = Json::array();
    void Add(const std::string& what, const std::string& mend)
    {
        all.push_back({{"finding", what}, {"mend", mend}});
    }
};

void CheckFolders(const std::string& list, Findings* findings)
{
    for (const char* folder : kFolders) {
        const std::string path = DataPath() + "/" + list + folder;
        struct stat status {
        };
        if (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
            findings->Add("the folder " + path + " is missing", "dlctl list check --fix " + list);
        else if ((status.st_mode & 07) != 0)
            findings->Add("everybody may look into " + path, "dlctl list check --fix " + list);
    }
}

void CheckTexts(const SearchEntry& entry, Findings* findings)
{
    for (const SearchAttribute& attribute : entry.attributes)
        for (const char* name : {"subtxtpath", "unsubtxtpath", "welcometxtpath",
                                 "disclaimertxtpath", "disclaimerhtmlpath"})
            if (EqualNoCase(attribute.name, name) && access(attribute.value.c_str(), R_OK) != 0)
                findings->Add(
                    FormatText("the file of %s cannot be read: %s", name, attribute.value.c_str()),
                    "write the file, or take the value out of the list's entry");
}

void CheckOwner(ldapClient& client, const std::string& list, Findings* findings)
{
    const std::string alias = OwnerAlias(list);
    const SearchReq owner = client.ldapClientSearch(
        nullptr, 2, false,
        FormatText("(&(objectclass=qvlistowner)(mail=%s))", EscapeFilterValue(alias).c_str()));
    if (owner.failed)
        findings->Add("the directory could not be searched for the owner", "try again");
    else if (owner.Empty())
        findings->Add("there is no owner alias " + alias + ", the postmaster gets its mail",
                      "add an entry of class qvlistowner with mail and listowner");
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
    if (options.fix && MakeFolders(options.list) != kExitOk)
        return kExitFailed;
    Findings findings;
    if (found.entries.size() > 1)
        findings.Add("several entries have this address; the first is used",
                     "remove the others from the directory");
    CheckFolders(options.list, &findings);
    CheckTexts(found.entries.front(), &findings);
    CheckOwner(client, options.list, &findings);
    if (options.json)
        PrintJson(findings.all);
    for (const Json& finding : findings.all)
        if (!options.json)
            std::printf("%s\n    mend: %s\n", finding.value("finding", "").c_str(),
                        finding.value("mend", "").c_str());
    if (findings.all.empty() && !options.json)
        std::printf("%s is in order\n", options.list.c_str());
    return findings.all.empty() ? kExitOk : kExitFailed;
}

int Delete(const ListOptions& options)
{
    ldapClient client;
    if (!OpenDirectory(&client))
        return kExitFailed;
    const int status =
        ExplainChange(client.DeleteEntry(ListEntryName(options.list)), "the list " + options.list);
    if (status != kExitOk)
        return status;
    const std::string alias = OwnerAlias(options.list);
    const ModifyResult owner = client.DeleteEntry(AliasEntryName(alias));
    client.ldapClientUnbind();
    if (owner != ModifyResult::kDone && owner != ModifyResult::kNotThere)
        return ExplainChange(owner, "the owner alias " + alias);
    std::printf("%s deleted; its data stays in %s/%s\n", options.list.c_str(), DataPath().c_str(),
                options.list.c_str());
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
