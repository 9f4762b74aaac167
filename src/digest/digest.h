// Digests: the postings that wait in a list's digest folder become one message to the digest
// members, and leave the folder.
//
// The plain digest is one text; the MIME digest has a part with the topics and a multipart/digest
// (RFC 2046, 5.1.5) with the postings as they are. True also when there was nothing to send; false,
// with a line in the log, when the digest could not be made or submitted: the postings stay for the
// next one. Postings beyond the list's size limit are left out and removed all the same. Nothing is
// held in memory but one line.
#pragma once

#include <string>

namespace dl
{

[[nodiscard]] bool SendPlainDigest(const std::string& list, const std::string& channel);
[[nodiscard]] bool SendMimeDigest(const std::string& list, const std::string& channel);

}  // namespace dl
