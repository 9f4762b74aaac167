// Postings that are recorded before their files are there, and what each was made from, for the
// files of this folder only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/archive/archive.h"
#include "platform/archive/index_private.h"

namespace dl::archive
{

// How long the file of a posting may take before the posting counts as unreadable, and before it is
// forgotten; seconds.
inline constexpr std::int64_t kFileMayTake = 3600;
inline constexpr std::int64_t kForgottenAfter = 86'400;

// Records what is new among `filings`; gives them with what was known of them.
[[nodiscard]] std::vector<ArchiveFiling> Announce(Database& index,
                                                  std::vector<ArchiveFiling> filings);
// Looks for the files of announced postings: those that are there are read next, those that never
// came are forgotten.
void SettleAnnounced(Database& index, const std::string& archive_path);
// Forgets what the posting was made from. Inside a transaction.
void ForgetSource(Database& index, std::int64_t id);

}  // namespace dl::archive
