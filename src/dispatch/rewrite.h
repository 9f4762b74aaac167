// Rewriting a posting: the queued message becomes the copy that goes to a list's members.
//
// The copy begins with a new trace header; earlier ones are renamed, the Sender becomes the list,
// return receipts go as the list wants it. The body is unchanged. The header block ends at the
// first line that is exactly CRLF.
#pragma once

#include <optional>
#include <string>

#include "dispatch/folder_filing.h"
#include "platform/queue/queue.h"

namespace dl
{

enum class RewriteResult {
    kDone = 0,
    kUnreadable = 1,    // the queued message cannot be opened or read
    kCannotCreate = 2,  // the new file cannot be created
    kCannotWrite = 3,   // a write failed
};

// What becomes of a posting's header lines, one after the other. Feed lines up to the end of the
// header block.
class HeaderRewriter
{
 public:
    HeaderRewriter(std::string list, bool remove_receipts)
        : list_(std::move(list)), remove_receipts_(remove_receipts)
    {
    }
    // What is written in the place of `line` (its own end included).
    [[nodiscard]] std::string Next(std::string_view line);
    [[nodiscard]] bool InHeader() const { return in_header_; }
    // Text of the last Subject header's first line, leading blank and line end included.
    [[nodiscard]] const std::optional<std::string>& Subject() const { return subject_; }

 private:
    [[nodiscard]] std::string SenderLine() const;
    [[nodiscard]] std::string Keep(std::string_view line, const char* prefix = "");

    std::string list_;
    bool remove_receipts_;
    bool in_header_ = true;
    bool sender_written_ = false;
    bool skipping_ = false;  // the header before was dropped, so its continuation lines are
    std::optional<std::string> subject_;
};

// Writes the file of `entry` from the message `id` for `list`, and gives `filing` its copies for
// digest and archive. Failures are logged at level 1; the entry stays the caller's.
[[nodiscard]] RewriteResult RewriteListMessage(unsigned long id, MQContext* entry,
                                               const std::string& list, FolderFiling* filing);

}  // namespace dl
