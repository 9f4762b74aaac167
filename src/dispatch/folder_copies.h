// What is kept of a delivered posting: a copy in the list's digest folder, a line in its topics,
// and, for an archived list, a copy filed in the archive.
//
// MakeFolderCopies puts the copies beside their places, under names that nobody looks for, and
// tells `filing` of them, which gives them their names before the message leaves the queue. A
// missing folder is logged and never undoes the delivery; no folder is made here. What is the
// machine's fault (no room, a broken disk) is noted as such (machine_fault.h): the message then
// stays.
#pragma once

#include <optional>
#include <string>

#include "dispatch/folder_filing.h"

namespace dl
{

// `id` is the posting's identifier as it arrived, `rewritten` the path of the new entry's message
// file, `subject` the text of its Subject header, line end included.
void MakeFolderCopies(const std::string& list, unsigned long id, const std::string& rewritten,
                      const std::optional<std::string>& subject, FolderFiling* filing);

}  // namespace dl
