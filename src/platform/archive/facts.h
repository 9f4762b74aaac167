// What the index keeps of a posting. Pure functions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/mime/read_posting.h"

namespace dl::archive
{

struct Facts {
    std::int64_t id = 0;
    std::string hash;  // of the Message-ID; names the posting's page
    std::string message_id;
    std::vector<std::string> references;  // the nearest first
    std::int64_t date = 0;                // seconds since 1970 UTC
    std::string subject;                  // never empty
    std::string base_subject;             // without "Re:" and "[list]", folded; may be empty
    bool reply = false;                   // the subject begins with "Re:" or its like
    std::string name;                     // of the author, as it is shown; never empty
    std::string author_key;               // the same for all postings of one author
    std::int64_t attachments = 0;
    std::string excerpt;  // the beginning of what the author wrote
    std::string words;    // of it, for the search
};

// `arrival` stands in for a date that is missing or cannot be true: before 1980, or more than two
// days after `now`.
[[nodiscard]] Facts FactsOf(const Posting& posting, std::int64_t id, std::int64_t arrival,
                            std::int64_t now);

// The subject without reply and forward marks, list tags and case; `reply` says whether there was a
// reply mark.
[[nodiscard]] std::string BaseSubject(const std::string& subject, bool* reply);

// The name under which an author's postings are shown; a bare address is shortened.
[[nodiscard]] std::string AuthorName(const PostingMailbox& from);

}  // namespace dl::archive
