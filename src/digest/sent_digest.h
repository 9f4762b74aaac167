// What is left to do once a digest is committed: its postings go, and its list's moment moves on.
//
// A mark of the queue, set in the same transaction as the digest, says so until it is done; doing
// it again changes nothing.
#pragma once

#include <ctime>
#include <string>
#include <vector>

namespace dl
{

struct SentDigest {
    std::string list;
    std::time_t next = 0;               // when the list's next one is due; 0: not known
    std::vector<std::string> postings;  // names in its digest folder

    // Notes it in the work of this thread, as a part of what commits the digest.
    [[nodiscard]] bool Mark() const;
    // Removes postings and topics, moves the moment, then takes the mark away. False when something
    // could not be done, which is logged.
    [[nodiscard]] bool Finish() const;
};

// Those that are not finished. False when the queue cannot be read.
[[nodiscard]] bool ReadSentDigests(std::vector<SentDigest>* digests);

}  // namespace dl
