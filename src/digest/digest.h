// Digests: the postings that wait in a list's digest folder become one message to the digest
// members, and leave the folder.
//
// The plain digest is one text; the MIME digest has a part with the topics and a multipart/digest
// (RFC 2046, 5.1.5) with the postings as they are. True also when there was nothing to send; false,
// with a line in the log, when the digest could not be made or submitted: the postings stay for the
// next one. Postings beyond the list's size limit are skipped and removed all the same; those whose
// message has not left its channel yet stay. Nothing is held in memory but one line.
//
// With the commit of a digest a mark of the queue (platform/queue/work.h) says which postings were
// in it and when the next one is due, so that a crash before they are removed neither sends them
// again nor skips any: FinishSentDigests does what such a mark still asks for.
#pragma once

#include <ctime>
#include <set>
#include <string>

namespace dl
{

// `next` is the moment of the next digest, kept with the commit; 0: none.
[[nodiscard]] bool SendPlainDigest(const std::string& list, const std::string& channel,
                                   std::time_t next = 0);
[[nodiscard]] bool SendMimeDigest(const std::string& list, const std::string& channel,
                                  std::time_t next = 0);

// Adds the lists to `unfinished` that must send no digest yet, because something of their last one
// cannot be removed (logged, and tried again each minute). False when the queue cannot be read.
[[nodiscard]] bool FinishSentDigests(std::set<std::string>* unfinished);

}  // namespace dl
