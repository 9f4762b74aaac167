// Postings on their way to the pages: what has been recorded and not been read yet, and what cannot
// be read or shown, with the cause.
//
// A posting that cannot be read is left out of the pages; of one that can be shown in part only,
// the page says what is missing. Both are tried again when the operator asks for it, and by
// themselves when the program reads or shows postings in another way than the version that failed.
// Faults of the machine concern no posting: they end the run, and the next one goes on.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/archive/archive.h"
#include "platform/archive/index_private.h"

namespace dl::archive
{

// Changes whenever postings are read, or their pages made, in another way: then all pages are due,
// and what failed is tried again.
inline constexpr int kMaker = 1;

// Reads what came in and puts it into the index.
void ReadIncoming(Database& index, const std::string& archive_path, const std::string& list);

// Why the file, which could not be read as a message, could not; in words for the operator.
[[nodiscard]] std::string WhyUnreadable(const std::string& path);
// The page of the posting shows it in part; `cause` says what is missing, empty: nothing is.
void NoteShown(Database& index, const std::string& list, std::int64_t id, const std::string& cause);

enum class Retry { kAll, kOfOtherMakers };
// Has what failed tried again by the next run.
void RetryFailed(Database& index, Retry which);
// All postings that failed, by id, from an index of any format.
[[nodiscard]] std::vector<LeftOutPosting> ReadLeftOut(Database& index,
                                                      const std::string& archive_path);

}  // namespace dl::archive
