// What a list needs beside its entry: its data folders and its owner alias; and what is wrong with
// it.
#pragma once

#include <string>

#include "platform/directory/directory.h"
#include "tools/dlctl/support.h"

namespace dl
{

// Makes the list's data folders, mode 0750; they belong to the owner of the data folder, so that
// the service may use what root has made. No link is followed below the data folder: who may write
// there cannot make root change the mode of another folder. The exit status; complains.
int MakeListFolders(const std::string& list);

// "<list>-owner@<domain>".
[[nodiscard]] std::string OwnerAlias(const std::string& list);
// The entries of that alias.
[[nodiscard]] SearchReq FindOwner(ldapClient& client, const std::string& list);

// An array of {"finding", "mend"}, empty when nothing is wrong; `found` holds the list's entries.
[[nodiscard]] Json ListFindings(ldapClient& client, const std::string& list,
                                const SearchReq& found);

}  // namespace dl
