// Copies of a message that say that it is spam: in its subject, or in a header of their own.
//
// Line by line, every other byte as it was. Failures are logged at level 1 with their number, tag
// "Bayesian filter"; the destination is then not to be used.
#pragma once

#include <string>

namespace dl
{

// Puts "Subject: <subject>" in the place of the first subject header and its continuation lines, or
// before the empty line that ends a header without one.
[[nodiscard]] bool ChangeSubject(const std::string& source, const std::string& destination,
                                 const std::string& subject);

// Writes "X-Spam-Status: YES" before the empty line that ends the header.
[[nodiscard]] bool AddXHeader(const std::string& source, const std::string& destination);

}  // namespace dl
