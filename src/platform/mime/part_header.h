// The header of a message or part as bytes of the file: where the fields stand that rule how its
// body is read, and where a new one goes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace dl
{

struct HeaderField {
    std::string name;  // as written
    std::int64_t from = 0;
    std::int64_t to = 0;  // behind the line end of its last line
    std::string value;    // unfolded
};

struct PartHeader {
    std::int64_t end = 0;             // where the empty line begins
    std::vector<HeaderField> fields;  // MIME-Version, Content-Type, Content-Transfer-Encoding

    // Without regard to case; null when there is none.
    [[nodiscard]] const HeaderField* Find(std::string_view name) const;
};

// Reads `block`, which stands at `begin` of the file and ends with the empty line. The reason why
// it cannot be relied on (mail readers would disagree on what it says), null when it can.
[[nodiscard]] const char* ReadPartHeader(std::string_view block, std::int64_t begin,
                                         PartHeader* header);

}  // namespace dl
