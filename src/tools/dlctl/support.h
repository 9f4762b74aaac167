// What the commands of dlctl share: messages, JSON, and a list's entry in the directory.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "platform/directory/directory.h"

namespace dl
{

using Json = nlohmann::ordered_json;

// Exit statuses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitNotFound = 2;

// "dlctl: ..." on standard error; control characters are escaped. Returns `status`.
int Complain(int status, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Two blanks of indent. Bytes that are no UTF-8, as mail may hold them, are shown as U+FFFD.
[[nodiscard]] std::string Dump(const Json& json);
void PrintJson(const Json& json);

// Whether `list` can be a list: a plain address that can be the name of a folder. Complains when
// not.
[[nodiscard]] bool IsListName(const std::string& list);

enum class ListFound { kYes, kNo, kFailed };
// Looks one list's entry up, over a connection that the caller has opened. Complains when it is not
// there, or the search failed.
[[nodiscard]] ListFound FindListEntry(ldapClient& client, const std::string& list,
                                      SearchReq* found);

// Prints why a change was not made, and returns the exit status: kExitOk for kDone.
[[nodiscard]] int ExplainChange(ModifyResult result, const std::string& what);

}  // namespace dl
