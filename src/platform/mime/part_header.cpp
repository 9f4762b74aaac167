#include "platform/mime/part_header.h"

#include "platform/address/address.h"

namespace dl
{

namespace
{

// The name before the colon, blanks behind it dropped; empty when `line` is no header line.
std::string_view NameOf(std::string_view line)
{
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos)
        return {};
    std::string_view name = line.substr(0, colon);
    while (!name.empty() && (name.back() == ' ' || name.back() == '\t'))
        name.remove_suffix(1);
    for (const char c : name)
        if (c <= ' ' || c >= 127)
            return {};
    return name;
}

bool IsRuling(std::string_view name)
{
    return EqualNoCase(name, "MIME-Version") || EqualNoCase(name, "Content-Type") ||
           EqualNoCase(name, "Content-Transfer-Encoding");
}

}  // namespace

const HeaderField* PartHeader::Find(std::string_view name) const
{
    for (const HeaderField& field : fields)
        if (EqualNoCase(field.name, name))
            return &field;
    return nullptr;
}

const char* ReadPartHeader(std::string_view block, std::int64_t begin, PartHeader* header)
{
    HeaderField* open = nullptr;  // the ruling field whose continuation lines may follow
    for (std::size_t at = 0; at < block.size();) {
        const std::size_t feed = block.find('\n', at);
        if (feed == std::string_view::npos)
            break;
        std::string_view line = block.substr(at, feed - at);
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        const std::int64_t from = begin + static_cast<std::int64_t>(at);
        at = feed + 1;
        if (line.empty()) {
            header->end = from;
            return at == block.size() ? nullptr : "its header has an empty line inside";
        }
        if (line.front() == ' ' || line.front() == '\t') {
            if (open) {
                open->value += line;
                open->to = begin + static_cast<std::int64_t>(at);
            } else if (from == begin) {
                return "its header begins with a continuation line";
            }
            continue;
        }
        const std::string_view name = NameOf(line);
        if (name.empty())
            return "its header has a line that is no field";
        open = nullptr;
        if (!IsRuling(name))
            continue;
        if (header->Find(name))
            return "its header says twice how to read it";
        if (line.find_first_of(std::string_view("\r\0", 2)) != std::string_view::npos)
            return "its header has control characters";
        header->fields.push_back({std::string(name), from, begin + static_cast<std::int64_t>(at),
                                  std::string(line.substr(line.find(':') + 1))});
        open = &header->fields.back();
    }
    return "no empty line ends its header";
}

}  // namespace dl
