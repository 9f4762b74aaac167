// The work on one archive, each a whole step that may be interrupted at any point and is finished
// by the next one. One at a time per archive, whoever runs it; each has its own connection to the
// index. Failures are CDlArchiveExceptions.
#pragma once

#include <cstdint>
#include <string>

namespace dl::archive
{

// Reads the postings that came in and writes the pages that are due.
void Generate(const std::string& archive_path, const std::string& list);
// Takes the posting out of files, index and pages. False when there is none.
[[nodiscard]] bool Remove(const std::string& archive_path, const std::string& list,
                          std::int64_t id);
// Makes the index anew from the posting files, then all pages in a folder beside the present ones,
// which are then exchanged for them.
void Rebuild(const std::string& archive_path, const std::string& list);

}  // namespace dl::archive
