// The commands that people send to a list's request address, read from the body text.
//
// Only the first line decides, by its beginning and without regard to case: "subscribers"
// subscribes, "unsubscribe me please" unsubscribes. Nothing here logs.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace dl
{

struct RequestCommand {
    bool known = false;  // false: the line is no command, or the body could not be read
    bool subscribe =
        false;  // false: unsubscribe, also for a body whose first line is blank, and for none
    bool digest = false;
    bool archive = false;  // an archive registration; `subscribe` is false then
};

// What one line (cut at 1023 bytes) commands; a blank line is a known command without any flag.
[[nodiscard]] RequestCommand ParseCommandLine(std::string_view line);
[[nodiscard]] RequestCommand GetRequestCommand(unsigned long id);

// The identifier of a line "archive registration (xxxxxxxx)", eight hexadecimal digits, before the
// first blank line. `found` is false when the text cannot be read or ends, after a complete line,
// without one; the number is 0 when the text ends otherwise.
struct RegistrationId {
    bool found = false;
    std::uint32_t id = 0;
};
[[nodiscard]] RegistrationId GetArchiveRegistrationId(unsigned long id);
// The same from a text file.
[[nodiscard]] RegistrationId ReadRegistrationId(const std::string& path);

}  // namespace dl
