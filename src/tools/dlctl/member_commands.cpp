// dlctl member: list, add, remove, import, export.

#include <cstdio>
#include <memory>

#include "platform/address/address.h"
#include "platform/files/files.h"
#include "platform/log/log.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/open_list.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

struct MemberOptions {
    std::string list;
    std::vector<std::string> addresses;
    std::string file;
    bool digest = false;
    bool blocked = false;
    bool json = false;
};

bool IsUsable(const Member& member)
{
    RT parsed;
    if (RecipParse(member.address, &parsed, 1) == 1 && member.Value().size() <= kMaxModifyValue &&
        parsed.addresses[0].full == member.address)
        return true;
    Complain(kExitFailed, "not an address: %s", member.address.c_str());
    return false;
}

int List(const MemberOptions& options)
{
    OpenList list;
    if (const int status = list.Open(options.list))
        return status;
    Json all = Json::array();
    for (const Member& member : list.Members()) {
        if (options.json)
            all.push_back({{"address", member.address},
                           {"mode", member.digest ? "digest" : "immediate"},
                           {"blocked", member.blocked}});
        else
            std::printf("%-9s  %-7s  %s\n", member.digest ? "digest" : "immediate",
                        member.blocked ? "blocked" : "",
                        EscapeForLog(member.address.c_str()).c_str());
    }
    if (options.json)
        PrintJson(all);
    else
        std::printf("%zu member(s)\n", list.Members().size());
    return kExitOk;
}

// Adds the members that are not there; says how many were. kExitFailed when one was no address; the
// others are added.
int AddMembers(const std::string& name, const std::vector<Member>& members)
{
    OpenList list;
    if (const int status = list.Open(name))
        return status;
    int status = kExitOk;
    std::size_t already = 0;
    for (const Member& member : members) {
        if (!IsUsable(member))
            status = kExitFailed;
        else if (list.Has(member.address))
            ++already;
        else
            list.PlanAdd(member);
    }
    std::size_t added = 0;
    const int sent = list.Send(&added, &already);
    std::printf("%zu added, %zu already there\n", added, already);
    return sent != kExitOk ? sent : status;
}

int Add(const MemberOptions& options)
{
    std::vector<Member> members;
    for (const std::string& address : options.addresses)
        members.push_back({address, options.digest, options.blocked});
    return AddMembers(options.list, members);
}

int Remove(const MemberOptions& options)
{
    OpenList list;
    if (const int status = list.Open(options.list))
        return status;
    int status = kExitOk;
    for (const std::string& address : options.addresses)
        if (!list.PlanRemove(address))
            status = Complain(kExitNotFound, "%s is no member", address.c_str());
    std::size_t removed = 0;
    std::size_t already = 0;
    const int sent = list.Send(&removed, &already);
    std::printf("%zu removed\n", removed);
    return sent != kExitOk ? sent : status;
}

// One member a line: an address, or a value as export writes it. Blank lines and lines that begin
// with # are passed over.
int Import(const MemberOptions& options)
{
    LineReader in(options.file == "-" ? "/dev/stdin" : options.file);
    if (!in.IsOpen())
        return Complain(kExitFailed, "cannot read %s", options.file.c_str());
    std::vector<Member> members;
    while (const auto line = in.Next()) {
        const std::string text(line->substr(0, line->find_last_not_of(" \t\r\n") + 1));
        Member member;
        if (text.empty() || text[0] == '#')
            continue;
        if (!ParseMember(text, &member))
            member = {text, options.digest, options.blocked};
        members.push_back(member);
    }
    if (in.Failed())
        return Complain(kExitFailed, "cannot read %s", options.file.c_str());
    return AddMembers(options.list, members);
}

int Export(const MemberOptions& options)
{
    OpenList list;
    if (const int status = list.Open(options.list))
        return status;
    for (const Member& member : list.Members())
        std::puts(member.Value().c_str());
    return kExitOk;
}

}  // namespace

void AddMemberCommands(CLI::App* program, int* status)
{
    auto options = std::make_shared<MemberOptions>();
    CLI::App* member = program->add_subcommand("member", "Members of a list");
    member->require_subcommand(1);
    const auto add = [&](const char* name, const char* help, int (*run)(const MemberOptions&)) {
        CLI::App* command = member->add_subcommand(name, help);
        command->add_option("list", options->list, "The list's address")->required();
        command->callback([=] { *status = run(*options); });
        return command;
    };
    const auto add_modes = [&](CLI::App* command) {
        command->add_flag("--digest", options->digest, "In digest mode");
        command->add_flag("--blocked", options->blocked, "May not post");
    };
    add("list", "Show the members", List)->add_flag("--json", options->json, "As JSON");
    CLI::App* adding = add("add", "Add members", Add);
    adding->add_option("address", options->addresses, "Their addresses")->required();
    add_modes(adding);
    add("remove", "Remove members, whatever their mode", Remove)
        ->add_option("address", options->addresses, "Their addresses")
        ->required();
    CLI::App* import = add("import", "Add the members that a file names, one a line", Import);
    import->add_option("file", options->file, "The file; - for standard input")->required();
    add_modes(import);
    add("export", "Print the members as import reads them", Export);
}

}  // namespace dl
