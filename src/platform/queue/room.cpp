#include "platform/queue/room.h"

#include <sys/statvfs.h>

#include <algorithm>

namespace dl
{
namespace
{

// A posting, its copy while disclaimers are put in, and the copies for digest and archive.
constexpr std::uint64_t kCopies = 4;
constexpr Room kBesideCopies = {256U << 10, 16};
constexpr Room kBesideMessage = {1U << 20, 32};  // the index's log, some smaller messages

Room operator+(const Room& a, const Room& b)
{
    return {a.bytes + b.bytes, a.files + b.files};
}

}  // namespace

bool HasRoomAt(const std::string& folder, const Room& wanted)
{
    struct statvfs disk {
    };
    if (statvfs(folder.c_str(), &disk) != 0)
        return true;
    const bool counts_files = disk.f_files != 0;  // some make them as they need them
    return disk.f_bavail >= wanted.bytes / disk.f_frsize &&
           (!counts_files || disk.f_favail >= wanted.files);
}

Room ServiceRoom(std::uint64_t bytes)
{
    return kSendRoom + kBesideCopies + Room{kCopies * bytes, kCopies};
}

Room IntakeRoom(std::uint64_t bytes, std::uint64_t largest)
{
    return ServiceRoom(std::max(bytes, largest)) + kBesideMessage + Room{bytes, 1};
}

}  // namespace dl
