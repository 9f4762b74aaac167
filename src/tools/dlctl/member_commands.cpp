// dlctl member: list, add, remove, import, export.

#include <cstdio>
#include <memory>
#include <unordered_map>

#include "lists/directory_access.h"
#include "platform/address/address.h"
#include "platform/files/files.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

constexpr char kAttribute[] = "listmember";
constexpr std::size_t kBatch = 1000;  // changes sent in one request

struct MemberOptions {
    std::string list;
    std::vector<std::string> addresses;
    std::string file;
    bool digest = false;
    bool blocked = false;
    bool json = false;
};

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

// A value of the directory, or of an export; false when it is none.
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

bool IsUsable(const Member& member)
{
    RT parsed;
    if (RecipParse(member.address, &parsed, 1) == 1 && member.Value().size() <= kMaxModifyValue &&
        parsed.addresses[0].full == member.address)
        return true;
    Complain(kExitFailed, "not an address: %s", member.address.c_str());
    return false;
}

// A list that is open for changes, and its members by address in lower case.
class OpenList
{
 public:
    // kExitOk, or the exit status.
    int Open(const std::string& list)
    {
        list_ = list;
        if (!OpenDirectory(&client_))
            return kExitFailed;
        const ListFound there = FindListEntry(client_, list, &found_);
        if (there != ListFound::kYes)
            return there == ListFound::kNo ? kExitNotFound : kExitFailed;
        for (const SearchAttribute& attribute : found_.entries.front().attributes) {
            Member member;
            if (EqualNoCase(attribute.name, kAttribute) && ParseMember(attribute.value, &member)) {
                order_.push_back(member);
                values_.emplace(LowerCase(member.address), attribute.value);
            }
        }
        return kExitOk;
    }

    [[nodiscard]] const std::vector<Member>& Members() const { return order_; }
    // The member's value as it stands in the directory; null when the address is no member.
    [[nodiscard]] const std::string* ValueOf(const std::string& address) const
    {
        const auto place = values_.find(LowerCase(address));
        return place == values_.end() ? nullptr : &place->second;
    }
    void Plan(AttributeChange::Operation operation, const std::string& address,
              const std::string& value)
    {
        changes_.push_back({operation, kAttribute, value});
        if (operation == AttributeChange::Operation::kAdd)
            values_.emplace(LowerCase(address), value);
        else
            values_.erase(LowerCase(address));
    }
    // Sends what was planned, so many changes in a request. Counts the ones that are done.
    int Send(std::size_t* done)
    {
        for (std::size_t from = 0; from < changes_.size(); from += kBatch) {
            const std::size_t to = std::min(from + kBatch, changes_.size());
            const std::vector<AttributeChange> batch(
                changes_.begin() + static_cast<std::ptrdiff_t>(from),
                changes_.begin() + static_cast<std::ptrdiff_t>(to));
            const ModifyResult result = client_.ldapClientModify(found_.entries.front().dn, batch);
            if (result != ModifyResult::kDone)
                return ExplainChange(result, "the members of " + list_);
            *done += batch.size();
        }
        client_.ldapClientUnbind();
        return kExitOk;
    }

 private:
    std::string list_;
    ldapClient client_;
    SearchReq found_;
    std::vector<Member> order_;
    std::unordered_map<std::string, std::string> values_;
    std::vector<AttributeChange> changes_;
};

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
                        member.blocked ? "blocked" : "", member.address.c_str());
    }
    if (options.json)
        PrintJson(all);
    else
        std::printf("%zu member(s)\n", list.Members().size());
    return kExitOk;
}

// Adds the members that are not there; says how many were. kExitNotFound when nothing was to be
// done.
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
        else if (list.ValueOf(member.address))
            ++already;
        else
            list.Plan(AttributeChange::Operation::kAdd, member.address, member.Value());
    }
    std::size_t added = 0;
    const int sent = list.Send(&added);
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
    for (const std::string& address : options.addresses) {
        const std::string* value = list.ValueOf(address);
        if (value)
            list.Plan(AttributeChange::Operation::kDelete, address, std::string(*value));
        else
            status = Complain(kExitNotFound, "%s is no member", address.c_str());
    }
    std::size_t removed = 0;
    const int sent = list.Send(&removed);
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
