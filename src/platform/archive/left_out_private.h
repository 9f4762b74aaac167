// Postings that cannot be read: why, and what the index remembers of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/archive/archive.h"
#include "platform/archive/index_private.h"

namespace dl::archive
{

// Why the file, which could not be read as a message, could not; in words for the operator.
[[nodiscard]] std::string WhyLeftOut(const std::string& path);
// Notes it, unless the posting was filed again since `stamp`. Inside a transaction.
void LeaveOut(Database& index, std::int64_t id, std::int64_t stamp, const std::string& cause);
// All of them, by id, from an index of any format.
[[nodiscard]] std::vector<LeftOutPosting> ReadLeftOut(Database& index,
                                                      const std::string& archive_path);

}  // namespace dl::archive
