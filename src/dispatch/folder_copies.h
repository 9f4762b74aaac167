// What is kept of a delivered posting: a copy in the list's digest folder, a line in its topics,
// and, for an archived list, a copy filed in the archive.
//
// Failures are logged and never undo the delivery. No folder is made here.
#pragma once

#include <optional>
#include <string>

namespace dl
{

// `id` is the posting's identifier as it arrived, `rewritten` the path of the new entry's message
// file, `subject` the text of its Subject header, line end included.
void MakeFolderCopies(const std::string& list, unsigned long id, const std::string& rewritten,
                      const std::optional<std::string>& subject);

}  // namespace dl
