// The user that a program runs as.
#pragma once

#include <sys/types.h>

#include <string>

namespace dl
{

// The number of `user`; -1 when there is none of that name.
[[nodiscard]] uid_t UserNumber(const std::string& user);
// Makes the process `user`'s for good, with the user's groups. False with `error`.
[[nodiscard]] bool BecomeUser(const std::string& user, std::string* error);
// For a tool that root runs: becomes the user who owns `path`, so that what the tool makes there is
// that user's. Nothing to do, and true, when the process is not root's, or `path` is root's or not
// there.
[[nodiscard]] bool BecomeOwnerOf(const std::string& path, std::string* error);

}  // namespace dl
