#include "dispatch/rewrite.h"

#include <new>

#include "dispatch/folder_copies.h"
#include "lists/dllist.h"
#include "platform/address/address.h"
#include "platform/files/files.h"
#include "platform/log/log.h"
#include "requests/mail_identity.h"

namespace dl
{
namespace
{

constexpr std::string_view kReceived = "Received:";
constexpr std::string_view kSubject = "Subject:";
constexpr std::string_view kSender = "Sender:";
constexpr std::string_view kReceipt = "return-receipt-to:";
constexpr std::string_view kNotification = "disposition-notification-to:";

bool CopyRewritten(LineReader* in, FileWriter* out, HeaderRewriter* header)
{
    std::string_view line;
    while (GetLine(in, &line) == 1) {
        const bool written = header->InHeader() ? out->Write(header->Next(line)) : out->Write(line);
        if (!written)
            return false;
    }
    return true;
}

}  // namespace

std::string HeaderRewriter::SenderLine() const
{
    return "Sender: " + list_ + "\r\n";
}

std::string HeaderRewriter::Keep(std::string_view line, const char* prefix)
{
    if (skipping_ && !line.empty() && (line[0] == ' ' || line[0] == '\t'))
        return prefix;
    skipping_ = false;
    return std::string(prefix).append(line);
}

std::string HeaderRewriter::Next(std::string_view line)
{
    if (line == "\r\n") {
        in_header_ = false;
        return sender_written_ ? "\r\n" : SenderLine() + "\r\n";
    }
    // A trace header keeps its name's place even when the rest counts as a continuation of a
    // dropped one.
    if (StartsWithNoCase(line, kReceived))
        return Keep(line.substr(kReceived.size()), "X-orig-received:");
    if (StartsWithNoCase(line, kSubject)) {
        try {
            subject_ = std::string(line.substr(kSubject.size()));
        } catch (const std::bad_alloc&) {
            subject_.reset();
        }
        return Keep(line);
    }
    if (StartsWithNoCase(line, kSender)) {
        sender_written_ = true;
        skipping_ = true;
        return SenderLine();
    }
    if (StartsWithNoCase(line, kReceipt) ||
        (remove_receipts_ && StartsWithNoCase(line, kNotification))) {
        skipping_ = true;
        return "";
    }
    return Keep(line);
}

RewriteResult RewriteListMessage(unsigned long id, MQContext* entry, const std::string& list,
                                 FolderFiling* filing)
{
    HeaderRewriter header(list, ListCache().RemoveReturnReceipt(list));
    const std::string from = GetMQPathName(id, ".msg");
    const std::string to = GetMQPathName(entry, ".msg");
    FileHandle in = FileOpen(from, 1, 1);
    if (!in) {
        DlLog(1, "Unable to open file: %s", from.c_str());
        if (FileSize(from) < 0)
            DlLog(1, "File does not exist");
        return RewriteResult::kUnreadable;
    }
    FileWriter out(to, "wb");
    if (!out.IsOpen()) {
        DlLog(1, "Unable to open file: %s", to.c_str());
        return RewriteResult::kCannotCreate;
    }
    if (!out.Write(ReceivedHeader(ReadGateway(), BaseName(to), MailDate()))) {
        DlLog(1, "Unable to write file: %s", to.c_str());
        return RewriteResult::kCannotWrite;
    }
    const bool copied = CopyRewritten(in.get(), &out, &header);
    if (in->Failed()) {
        DlLog(1, "Unable to read file: %s", from.c_str());
        return RewriteResult::kUnreadable;
    }
    FileClose(std::move(in));
    if (!copied || !out.Close()) {
        DlLog(1, "Unable to write file: %s", from.c_str());
        return RewriteResult::kCannotWrite;
    }
    DlLog(6,
          "Mailing list message (QID=%X, full path: %s, size: %ld bytes) has been modified "
          "successfully.",
          static_cast<unsigned>(GetMQId(entry)), to.c_str(), static_cast<long>(FileSize(to)));
    MakeFolderCopies(list, id, to, header.Subject(), filing);
    return RewriteResult::kDone;
}

}  // namespace dl
