// dlctl archive: register, rebuild, unreadable, remove, describe.

#include <crypt.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "lists/directory_access.h"
#include "platform/address/address.h"
#include "platform/archive/archive.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "requests/confirmations.h"
#include "requests/incoming.h"
#include "tools/dlctl/commands.h"
#include "tools/dlctl/open_list.h"
#include "tools/dlctl/progress.h"
#include "tools/dlctl/site_state.h"
#include "tools/dlctl/support.h"

namespace dl
{
namespace
{

constexpr std::size_t kLongestPassword = 255;

struct ArchiveOptions {
    std::string list;
    std::string address;
    std::string id;
    bool generate = false;
    bool json = false;
    bool retry = false;
    ArchiveDescription description;
};

// A line from the terminal without echo, or from standard input.
std::string AskPassword(const char* prompt)
{
    termios before{};
    const bool terminal = isatty(STDIN_FILENO) != 0 && tcgetattr(STDIN_FILENO, &before) == 0;
    if (terminal) {
        termios silent = before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
        std::fprintf(stderr, "%s", prompt);
    }
    std::string line;
    for (int c; (c = std::getc(stdin)) != EOF && c != '\n';)
        line += static_cast<char>(c);
    if (terminal) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
        std::fputc('\n', stderr);
    }
    return line.substr(0, line.find('\r'));
}

std::string MakePassword()
{
    static constexpr char kLetters[] = "abcdefghjkmnpqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ23456789.-";
    unsigned char bytes[20];
    if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes))
        return "";
    std::string password;
    for (const unsigned char byte : bytes)
        password += kLetters[byte % (sizeof kLetters - 1)];
    return password;
}

// The hash in the form that web servers read from a password file (SHA-512 of crypt(3)).
std::string Hash(const std::string& password)
{
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    auto data = std::make_unique<crypt_data>();
    if (!crypt_gensalt_rn("$6$", 0, nullptr, 0, setting, sizeof setting))
        return "";
    const char* hash = crypt_r(password.c_str(), setting, data.get());
    return hash && hash[0] == '$' ? hash : "";
}

// Writes the pending file under a new identifier; 0 when it cannot be written.
std::uint32_t WritePending(const std::string& list, const std::string& line)
{
    struct stat folder {
    };
    if (stat(ListFolder(list).c_str(), &folder) != 0)
        return 0;
    for (int tries = 0; tries < 100; ++tries) {
        std::uint32_t id = 0;
        if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id) || id == 0)
            continue;
        const std::string path = PendingPath(list, id);
        umask(077);
        FileWriter out(path, "wbx");
        if (!out.IsOpen())
            continue;
        // The service must be able to read and remove what root has made.
        const bool given =
            geteuid() != 0 || lchown(path.c_str(), folder.st_uid, folder.st_gid) == 0;
        if (out.Write(line) && out.Close() && given)
            return id;
        (void)Files().Remove(path.c_str());  // the failure is reported
        return 0;
    }
    return 0;
}

// Says why the mail would get no answer, as far as the directory tells; it need not be there.
void NoteNoAnswer(const ArchiveOptions& options)
{
    ldapClient client;
    SearchReq found;
    if (!OpenDirectory(&client) || FindListEntry(client, options.list, &found) != ListFound::kYes)
        return;
    bool closed = false;
    bool member = false;
    for (const SearchAttribute& attribute : found.entries.front().attributes) {
        Member value;
        if (EqualNoCase(attribute.name, "mode"))
            closed = attribute.value == "1";
        else if (EqualNoCase(attribute.name, "listmember"))
            member = member || (ParseMember(attribute.value, &value) &&
                                EqualNoCase(value.address, options.address));
    }
    if (!member)
        Complain(kExitOk, "note: %s is no member of %s, and the mail will get no answer",
                 options.address.c_str(), options.list.c_str());
    if (!closed)
        Complain(kExitOk, "note: %s is an open list, and the mail will get no answer",
                 options.list.c_str());
}

int Register(const ArchiveOptions& options)
{
    RT parsed;
    if (!IsListName(options.list))
        return kExitFailed;
    if (RecipParse(options.address, &parsed, 1) != 1 ||
        parsed.addresses[0].full != options.address ||
        options.address.find(':') != std::string::npos)
        return Complain(kExitFailed, "not an address that a password file can hold: %s",
                        options.address.c_str());
    const std::string password =
        options.generate ? MakePassword() : AskPassword("Password for the archive: ");
    if (password.empty())
        return Complain(kExitFailed, "no password was given (--generate makes one)");
    if (!options.generate && isatty(STDIN_FILENO) != 0 && AskPassword("Once more: ") != password)
        return Complain(kExitFailed, "the two passwords differ");
    if (password.size() > kLongestPassword || password.find('\0') != std::string::npos)
        return Complain(kExitFailed, "the password is too long, or no text");
    const std::string hash = Hash(password);
    if (hash.empty())
        return Complain(kExitFailed, "the password cannot be hashed");
    const std::uint32_t id =
        WritePending(options.list, FormatText("%s:%s\r\n", options.address.c_str(), hash.c_str()));
    if (id == 0)
        return Complain(kExitFailed,
                        "the pending file cannot be written in %s (dlctl list check --fix %s)",
                        ListFolder(options.list).c_str(), options.list.c_str());
    if (options.generate)
        std::printf("password    %s\n", password.c_str());
    std::printf("identifier  %08X\n\n%s now sends this mail, and confirms the answer:\n\n", id,
                options.address.c_str());
    std::printf("    From: %s\n    To: %s\n\n    archive registration (%08X)\n",
                options.address.c_str(), RequestAddress(options.list).c_str(), id);
    NoteNoAnswer(options);
    return kExitOk;
}

template <typename Deed>
int WithArchive(const ArchiveOptions& options, Deed deed)
{
    if (!IsListName(options.list))
        return kExitFailed;
    try {
        deed();
    } catch (const CDlArchiveException& problem) {
        return Complain(kExitFailed, "%s", problem.message);
    }
    return kExitOk;
}

int Rebuild(const ArchiveOptions& options)
{
    const int status = WithArchive(options, [&] {
        const Progress progress("making the archive of " + options.list + " anew");
        CDlArchive::RebuildArchive(options.list);
    });
    if (status == kExitOk)
        std::printf("the archive of %s was made anew\n", options.list.c_str());
    return status;
}

void PrintUnreadable(const std::vector<LeftOutPosting>& postings, bool json)
{
    Json rows = Json::array();
    if (!json && !postings.empty())
        std::printf("%-8s  %-20s  %s\n", "ID", "SINCE", "CAUSE");
    for (const LeftOutPosting& one : postings) {
        const std::string id = FormatText("%08lX", one.id);
        const std::string since = UtcText(one.since);
        if (json)
            rows.push_back({{"id", id},
                            {"file", one.file},
                            {"since", since.empty() ? Json() : Json(since)},
                            {"cause", one.cause.empty() ? Json() : Json(one.cause)},
                            {"in_part", one.in_part}});
        else
            std::printf("%s  %-20s  %s%s\n", id.c_str(), since.empty() ? "-" : since.c_str(),
                        one.in_part ? "shown in part: " : "",
                        one.cause.empty() ? "not noted, by an older version" : one.cause.c_str());
    }
    if (json)
        PrintJson(rows);
}

int Unreadable(const ArchiveOptions& options)
{
    std::vector<LeftOutPosting> postings;
    const int status = WithArchive(options, [&] {
        if (options.retry) {
            const Progress progress("reading postings of " + options.list);
            CDlArchive::RetryLeftOut(options.list);
            CDlArchive::GenerateIndexPages(options.list);
        }
        postings = CDlArchive::LeftOut(options.list);
    });
    if (status != kExitOk)
        return status;
    PrintUnreadable(postings, options.json);
    return options.retry && !postings.empty() ? kExitFailed : kExitOk;
}

// Copies of the index that an upgrade or a rebuild has left still hold what is removed.
void NoteCopies(const std::string& list)
{
    for (const std::string& copy : CDlArchive::IndexCopies(list))
        Complain(kExitOk, "note: %s may still hold its words; remove it when you can",
                 copy.c_str());
}

int Remove(const ArchiveOptions& options)
{
    const int status = WithArchive(options, [&] {
        CDlArchive::RemoveArchive(options.list, CDlArchive::GetId(options.id + ".msg"));
    });
    if (status != kExitOk)
        return status;
    std::printf("%s was removed from the archive of %s\n", options.id.c_str(),
                options.list.c_str());
    NoteCopies(options.list);
    return kExitOk;
}

int Describe(const ArchiveOptions& options)
{
    const std::string& url = options.description.url;
    if (!url.empty() && !StartsWithNoCase(url, "http://") && !StartsWithNoCase(url, "https://"))
        return Complain(kExitFailed, "the address of the pages begins with http:// or https://: %s",
                        url.c_str());
    return WithArchive(options, [&] {
        const Progress progress("writing the pages of " + options.list);
        CDlArchive::DescribeArchive(options.list, options.description);
        CDlArchive::GenerateIndexPages(options.list);
    });
}

}  // namespace

void AddArchiveCommands(CLI::App* program, int* status)
{
    auto options = std::make_shared<ArchiveOptions>();
    CLI::App* archive = program->add_subcommand("archive", "Archives of lists");
    archive->require_subcommand(1);
    CLI::App* registering = archive->add_subcommand(
        "register", "Prepare a reader's registration with the archive of a closed list");
    registering->add_option("list", options->list, "The list's address")->required();
    registering->add_option("address", options->address, "The member's address")->required();
    registering->add_flag("--generate", options->generate,
                          "Make a password and print it; else it is asked for");
    registering->callback([=] { *status = Register(*options); });

    CLI::App* rebuild =
        archive->add_subcommand("rebuild", "Make index and pages anew from the posting files");
    rebuild->add_option("list", options->list, "The list's address")->required();
    rebuild->callback([=] { *status = Rebuild(*options); });

    CLI::App* unreadable = archive->add_subcommand(
        "unreadable", "Show the postings that the pages leave out or show in part, and why");
    unreadable->add_option("list", options->list, "The list's address")->required();
    unreadable->add_flag("--retry", options->retry,
                         "Try them once more before; exit status 1 when some still fail");
    unreadable->add_flag("--json", options->json, "As JSON");
    unreadable->callback([=] { *status = Unreadable(*options); });

    CLI::App* remove = archive->add_subcommand(
        "remove", "Take a posting out of files, index, pages, feed and search");
    remove->add_option("list", options->list, "The list's address")->required();
    remove->add_option("id", options->id, "Its identifier, eight hexadecimal digits")->required();
    remove->callback([=] { *status = Remove(*options); });

    CLI::App* describe = archive->add_subcommand(
        "describe", "Set what the pages say of the list; what is not given is emptied");
    describe->add_option("list", options->list, "The list's address")->required();
    describe->add_option("--title", options->description.title,
                         "Title of the pages (default: the list's name before the @)");
    describe->add_option("--description", options->description.description, "One line on the list");
    describe->add_option("--url", options->description.url,
                         "Where the pages are served, for the links of the feed");
    describe->callback([=] { *status = Describe(*options); });
}

}  // namespace dl
