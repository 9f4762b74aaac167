// Filing a message into a folder of a mailbox.
//
// The folder is made when it is missing, level by level, from the template directory
// "MsgStore"/"HomeDir" of "qvmta.ini". All of it happens under the mailbox relation's lock, so that
// one writer at a time reads and writes a folder's counters; a failing step is undone. Logs what
// failed with its number, tag "Bayesian filter".
#pragma once

#include <string>
#include <string_view>

#include "platform/store/store.h"

namespace dl
{

// Why a message was not filed.
inline constexpr int kFilingDone = 0;
inline constexpr int kNoMemoryForFolder = -1;
inline constexpr int kNoMemoryForDirectory = -2;
inline constexpr int kFolderNotMade = -3;  // also: a name that is none, a mailbox that is not there
inline constexpr int kNoStatus = -4;
inline constexpr int kNoMemoryForMessage = -5;
inline constexpr int kCannotOpen = -6;
inline constexpr int kShortRead = -7;
inline constexpr int kNoFolderStatistics = -8;
inline constexpr int kNotStored = -9;

// The bytes before a stored message: the 32-bit little-endian number 17, CR and LF.
inline constexpr std::string_view kStoredLeadIn{"\x11\0\0\0\r\n", 6};

// Files the message file `path` into `folder` ("spam", "a/b") of the mailbox directory. True when
// all of it is stored.
[[nodiscard]] bool FileMessage(const std::string& mailbox_directory, const std::string& path,
                               const std::string& folder);

// Whether `folder` may be a folder: names separated by '/', none of them empty, beginning with '.',
// or holding a control character, and none below the first that could be a message's file.
[[nodiscard]] bool IsFolderName(const std::string& folder);

// For callers that hold the mailbox relation's lock. Makes each missing level whole before it can
// be seen; false when a level cannot be made.
[[nodiscard]] bool CreateFolder(mailbox* relation, const std::string& mailbox_directory,
                                const std::string& folder);
// Stores the text of a message as the folder's next one; kFilingDone or the number of what failed.
[[nodiscard]] int StoreMessage(diamondBase* session, mailbox* relation,
                               const std::string& mailbox_directory, const std::string& folder,
                               std::string_view message);

// The file of a stored message.
[[nodiscard]] std::string StoredMessagePath(const std::string& folder_directory, long uid);

}  // namespace dl
