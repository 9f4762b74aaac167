// Room on a disk: bytes and, where the file system counts them, files.
//
// Who puts mail into the queue stops first, who takes it out last, so that a disk that is full of
// mail drains: the intake leaves what the service needs for the largest message that waits, the
// service what dlsend needs to write down what the relay has answered. Pure but for statvfs.
#pragma once

#include <cstdint>
#include <string>

namespace dl
{

struct Room {
    std::uint64_t bytes = 0;
    std::uint64_t files = 0;
};

// Whether so much is free where `folder` lies. True when that cannot be told.
[[nodiscard]] bool HasRoomAt(const std::string& folder, const Room& wanted);

// What has to be free before an entry is handed to a relay: some dozen commits and a report.
inline constexpr Room kSendRoom = {1U << 20, 8};
// Before a message of so many bytes is handled: some copies of it, as postings and in folders.
[[nodiscard]] Room ServiceRoom(std::uint64_t bytes);
// Before a message of so many bytes is taken in, when the largest that waits has `largest`.
[[nodiscard]] Room IntakeRoom(std::uint64_t bytes, std::uint64_t largest);

}  // namespace dl
