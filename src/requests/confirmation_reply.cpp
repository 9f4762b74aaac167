// Matching a reply with the pending file that it confirms.

#include <sys/stat.h>

#include <cstdlib>
#include <optional>

#include "lists/data_folder.h"
#include "platform/address/address.h"
#include "platform/archive/archive.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "platform/mime/mime.h"
#include "requests/body_text.h"
#include "requests/confirmations.h"

namespace dl
{
namespace
{

using Kind = ConfirmationSubject::Kind;

constexpr std::size_t kLine = 1023;
constexpr std::size_t kIdDigits = 8;
constexpr std::string_view kBegun = "begun\r\n";  // a pending file's second line

// In the order in which they are looked for: the first holds the second.
constexpr std::pair<const char*, Kind> kPhrases[] = {
    {"unsubscription confirmation request ", Kind::kUnsubscription},
    {"subscription confirmation request ", Kind::kSubscription},
    {"archive authentication confirmation request ", Kind::kArchive},
};

// Calls `look` with the beginning (at most 1023 bytes) of each line until it answers true or the
// file ends.
template <typename Look>
void EachLine(const std::string& path, Look look)
{
    LineReader in(path);
    bool at_start = true;
    while (const auto piece = in.NextPiece(kLine)) {
        if (at_start && look(*piece))
            return;
        at_start = piece->back() == '\n';
    }
}

ConfirmationSubject FindSubject(const std::string& path)
{
    ConfirmationSubject subject;
    EachLine(path, [&](std::string_view line) {
        if (line == "\r\n" || line == "\n")
            return true;
        if (StartsWithNoCase(line, "Subject:"))
            subject = ReadConfirmationSubject(line);
        return subject.found;
    });
    return subject;
}

bool BodySaysOk(unsigned long id)
{
    std::string name = ExtractBodyText(id);
    if (name.empty())
        return false;
    bool ok = false;
    EachLine(name, [&](std::string_view line) { return ok = SaysOk(line); });
    MimeFreeFile(&name);
    return ok;
}

// A power loss may have cut the line, or left zeros in its place.
bool IsBegun(std::string_view line)
{
    return kBegun.starts_with(line) ||
           (line.size() <= kBegun.size() && line.find_first_not_of('\0') == line.npos);
}

// The line of the pending file, and whether its change was begun; none for anything that is not a
// plain file of such lines.
std::optional<std::string> ReadPending(const std::string& path, bool* begun)
{
    struct stat status {
    };
    if (path.empty() || lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    LineReader in(path);
    const auto line = in.Next();
    if (!line)
        return std::nullopt;
    std::string text(*line);
    const auto second = in.Next();
    *begun = second && IsBegun(*second);
    if ((second && !*begun) || in.Next() || in.Failed())
        return std::nullopt;
    return text;
}

// Whether the pending line is what the kind, list and sender ask for; sets the digest flag.
bool Matches(const std::string& line, Kind kind, const std::string& list, const std::string& sender,
             bool* digest)
{
    const char* by = sender.c_str();
    switch (kind) {
        case Kind::kSubscription:
            if (EqualNoCase(line, FormatText("subscribe %s %s\r\n", list.c_str(), by)))
                return true;
            *digest = EqualNoCase(line, FormatText("subscribe digest %s %s\r\n", list.c_str(), by));
            return *digest;
        case Kind::kUnsubscription:
            return EqualNoCase(line, FormatText("unsubscribe %s %s\r\n", list.c_str(), by));
        case Kind::kArchive:
            break;
    }
    // A request for membership names its sender, too, and would be taken for a login.
    return !StartsWithNoCase(line, "subscribe ") && !StartsWithNoCase(line, "unsubscribe ") &&
           LowerCase(line).find(LowerCase(sender)) != std::string::npos;
}

// The registration counts even when the archive could not take it.
void RegisterWithArchive(const std::string& list, const std::string& line)
{
    const ArchiveLock archive(SharedArchive());
    try {
        archive->SetList(DataFolderName(list));
        archive->GetArchivePath();
        archive->UpdateRemoteFile(line);
    } catch (const CDlArchiveException& problem) {
        DlLog(6, "%s", problem.message);
    }
}

}  // namespace

ConfirmationSubject ReadConfirmationSubject(std::string_view header_line)
{
    const std::string text = LowerCase(header_line);
    for (const auto& [phrase, kind] : kPhrases) {
        const std::size_t at = text.find(phrase);
        if (at == std::string::npos)
            continue;
        const std::string rest = text.substr(at + std::string_view(phrase).size());
        const std::string digits = rest.substr(rest.empty() ? 0 : 1, kIdDigits);
        if (rest.size() < kIdDigits + 2 || rest[0] != '(' || rest[kIdDigits + 1] != ')' ||
            digits.find_first_not_of("0123456789abcdef") != std::string::npos)
            return {};
        const unsigned long id = std::strtoul(digits.c_str(), nullptr, 16);
        return {.found = true, .kind = kind, .id = static_cast<std::uint32_t>(id)};
    }
    return {};
}

bool SaysOk(std::string_view line)
{
    const std::size_t start = line.find_first_not_of(" \t");
    if (start == std::string_view::npos || !StartsWithNoCase(line.substr(start), "ok"))
        return false;
    const std::string_view rest = line.substr(start + 2);
    return !rest.empty() &&
           (rest[0] == ' ' || rest[0] == '\t' || rest[0] == '\n' || rest.substr(0, 2) == "\r\n");
}

ConfirmationReply ProcessConfirmationReply(const Incoming& message, const std::string& sender,
                                           const std::string& request_address)
{
    const std::string list = SplitAlias(request_address, kRequestSuffix).List();
    const ConfirmationSubject subject = FindSubject(message.MessagePath());
    if (list.empty() || !subject.found || !BodySaysOk(message.id))
        return {};
    ConfirmationReply reply;
    reply.pending.path = PendingPath(list, subject.id);
    const std::optional<std::string> line = ReadPending(reply.pending.path, &reply.pending.begun);
    if (!line || !Matches(*line, subject.kind, list, sender, &reply.kind.digest))
        return {};
    reply.confirmed = true;
    reply.kind.subscribe = subject.kind == Kind::kSubscription;
    reply.kind.archive = subject.kind == Kind::kArchive;
    if (reply.kind.archive)
        RegisterWithArchive(list, *line);
    return reply;
}

bool PendingConfirmation::Begin()
{
    if (begun)
        return true;
    FileWriter out(path, "ab");
    if (out.IsOpen() && out.Write(kBegun) && out.Close() && SyncPath(path))
        return begun = true;
    DlLog(1, "Unable to write file: %s", path.c_str());
    return false;
}

void PendingConfirmation::End() const
{
    if (!Files().Remove(path.c_str()))
        DlLog(1, "Unable to remove file: %s", path.c_str());
}

}  // namespace dl
