#include "platform/address/message_id.h"

#include "platform/address/address.h"

namespace dl
{
namespace
{

constexpr std::string_view kName = "Message-ID:";
constexpr std::size_t kMostRead = 262'144;
constexpr std::size_t kMostLine = 1000;
constexpr std::size_t kMostKept = 250;

}  // namespace

void MessageIdFinder::Read(std::string_view piece)
{
    while (!done_ && !piece.empty()) {
        const std::size_t end = piece.find('\n');
        const std::string_view part = piece.substr(0, end);
        line_ += part.substr(0, kMostLine - line_.size());
        seen_ += part.size() + 1;
        if (end == std::string_view::npos)
            break;
        EndLine();
        piece.remove_prefix(end + 1);
    }
    done_ = done_ || seen_ > kMostRead;
}

void MessageIdFinder::EndLine()
{
    std::string_view line = line_;
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
        line.remove_suffix(1);
    const bool fold = !line.empty() && (line.front() == ' ' || line.front() == '\t');
    if (in_value_ && !fold)
        done_ = true;
    else if (in_value_ || StartsWithNoCase(line, kName))
        value_ += line.substr(in_value_ ? 0 : kName.size());
    in_value_ = in_value_ || !value_.empty() || StartsWithNoCase(line, kName);
    done_ = done_ || line.empty();
    line_.clear();
}

std::string MessageIdFinder::Text() const
{
    const std::size_t first = value_.find_first_not_of(" \t");
    return first == std::string::npos ? "none" : value_.substr(first, kMostKept);
}

}  // namespace dl
