// Postings into the index and out of it. Both mark every page that shows the change, and are called
// inside a transaction.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/archive/facts.h"
#include "platform/archive/index_private.h"

namespace dl::archive
{

// Puts a posting in; one that was there under the same id is taken out before.
void FilePosting(Database& index, const Facts& facts);
// Takes a posting out: its page and attachments go, its replies stay and hang on its parent. False
// when there is none of that id.
bool UnfilePosting(Database& index, std::int64_t id);

struct Place {
    std::optional<std::int64_t> parent;
    std::optional<std::int64_t> thread;    // none: a new one
    std::optional<std::string> waits_for;  // the Message-ID of a nearer parent that is not there
};
// Where a posting belongs: by References, In-Reply-To, then, for a reply, by its subject.
[[nodiscard]] Place FindPlace(Database& index, const Facts& facts);
// Hangs the postings on `id` that were waiting for its Message-ID. A thread that is joined with
// another by this goes into the larger one.
void AdoptReplies(Database& index, std::int64_t id, const std::string& message_id);
// Brings a thread's title and its last posting up to date, after `count` postings came or went;
// removes an empty one.
void TouchThread(Database& index, std::int64_t thread, std::int64_t count);
// Marks all pages of a thread.
void MarkThread(Database& index, std::int64_t thread);

}  // namespace dl::archive
