// Names for attachments. A pure function.
#pragma once

#include <cstddef>
#include <string>

namespace dl::archive
{

// The file name under which attachment `number` (from 1) is kept: "2-report.pdf". Made of letters,
// digits, '-' and '_' with one extension, which is one that browsers show or save without running
// anything; any other becomes ".txt" for text and ".bin". `name` and `type` are the sender's.
[[nodiscard]] std::string SafeFileName(std::size_t number, const std::string& name,
                                       const std::string& type);

}  // namespace dl::archive
