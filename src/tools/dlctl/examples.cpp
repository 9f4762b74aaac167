// The examples at the end of each command's help, in one place: the manual pages are written from
// them, and a test runs the help of every command.

#include <string>
#include <utility>

#include "tools/dlctl/commands.h"

namespace dl
{
namespace
{

constexpr std::pair<const char*, const char*> kExamples[] = {
    {"status", "  dlctl status\n  dlctl status --json | jq .channels"},
    {"check",
     "  dlctl check\n  dlctl check --fix\n"
     "  dlctl check --json | jq '.findings[].mend'"},
    {"explain",
     "  dlctl explain 6B0175F2\n  dlctl explain '<20261121.4711@example.com>'\n"
     "  dlctl explain 6B0175F2 --log /var/log/mail.log"},
    {"metrics",
     "  dlctl metrics\n"
     "  dlctl metrics --output /var/lib/prometheus/node-exporter/dlmanager.prom"},
    {"list", "  dlctl list\n  dlctl list --json | jq '.[].mail'"},
    {"list create",
     "  dlctl list create garden@lists.example.org --owner boss@example.org\n"
     "  dlctl list create board@lists.example.org --owner anna@example.com --closed "
     "--invalid-posting both"},
    {"list show",
     "  dlctl list show garden@lists.example.org\n"
     "  dlctl list show garden@lists.example.org --json"},
    {"list check", "  dlctl list check garden@lists.example.org --fix"},
    {"list delete", "  dlctl list delete garden@lists.example.org"},
    {"member", "  dlctl member list garden@lists.example.org"},
    {"member list", "  dlctl member list garden@lists.example.org --json"},
    {"member add",
     "  dlctl member add garden@lists.example.org anna@example.com "
     "bert@example.net\n"
     "  dlctl member add garden@lists.example.org dora@example.com --digest"},
    {"member remove", "  dlctl member remove garden@lists.example.org anna@example.com"},
    {"member import",
     "  dlctl member import garden@lists.example.org members.txt\n"
     "  dlctl member export old@lists.example.org |\n"
     "    dlctl member import garden@lists.example.org -"},
    {"member export", "  dlctl member export garden@lists.example.org > members.txt"},
    {"queue", "  dlctl queue list"},
    {"queue list",
     "  dlctl queue list\n  dlctl queue list dlhold --json\n"
     "  dlctl queue list dlout --limit 20"},
    {"queue show", "  dlctl queue show 6B0175F2\n  dlctl queue show 6B0175F2 --message"},
    {"queue remove", "  dlctl queue remove 6B0175F2 6B0175F3"},
    {"queue hold", "  dlctl queue hold 6B0175F2"},
    {"queue release", "  dlctl queue release 6B0175F2"},
    {"archive", "  dlctl archive rebuild garden@lists.example.org"},
    {"archive register",
     "  dlctl archive register board@lists.example.org anna@example.com --generate"},
    {"archive rebuild", "  dlctl archive rebuild garden@lists.example.org"},
    {"archive unreadable",
     "  dlctl archive unreadable garden@lists.example.org\n"
     "  dlctl archive unreadable garden@lists.example.org --retry\n"
     "  dlctl archive unreadable garden@lists.example.org --json | jq '.[].cause'"},
    {"archive remove", "  dlctl archive remove garden@lists.example.org 6B0175F2"},
    {"archive describe",
     "  dlctl archive describe garden@lists.example.org --title 'The garden list'"},
    {"directory", "  dlctl directory wait"},
    {"directory wait", "  dlctl directory wait --seconds 300"},
    {"store", "  dlctl store init"},
    {"store init", "  dlctl store init"},
    {"spam", "  dlctl spam explain message.eml garden@lists.example.org"},
    {"spam explain",
     "  dlctl spam explain message.eml garden@lists.example.org "
     "--sender anna@example.com\n"
     "  dlctl spam explain message.eml garden@lists.example.org --json | jq .verdict"},
};

CLI::App* Find(CLI::App* program, const std::string& path)
{
    const std::size_t blank = path.find(' ');
    for (CLI::App* command : program->get_subcommands({}))
        if (command->get_name() == path.substr(0, blank))
            return blank == std::string::npos ? command : Find(command, path.substr(blank + 1));
    return nullptr;
}

}  // namespace

void AddExamples(CLI::App* program)
{
    for (const auto& [path, text] : kExamples)
        if (CLI::App* command = Find(program, path))
            command->footer(std::string("Examples:\n") + text);
    program->footer(
        "Examples:\n  dlctl status\n  dlctl check --fix\n  dlctl explain 6B0175F2\n"
        "Each command's --help shows more.");
}

}  // namespace dl
