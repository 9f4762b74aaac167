#include "requests/boundary.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <set>

#include "platform/address/address.h"
#include "platform/clock/clock.h"
#include "platform/files/files.h"
#include "platform/log/format.h"

namespace dl
{
namespace
{

constexpr std::size_t kDigits = 8;
constexpr std::size_t kBlock = 65'536;

// Adds the seconds behind each `prefix` in `text`, in any letter case: not all readers care.
void AddSeconds(std::string_view text, std::string_view prefix, std::set<std::uint32_t>* seconds)
{
    const std::string lower = LowerCase(text);
    for (std::size_t at = lower.find(prefix); at != std::string::npos;
         at = lower.find(prefix, at + 1)) {
        const char* digits = lower.data() + at + prefix.size();
        std::uint32_t second = 0;
        if (at + prefix.size() + kDigits <= lower.size() &&
            std::from_chars(digits, digits + kDigits, second, 16).ptr == digits + kDigits)
            seconds->insert(second);
    }
}

}  // namespace

std::string FreeBoundary(const char* format, const std::vector<std::string>& enclosed)
{
    const std::string form = format;
    const std::string prefix = LowerCase(form.substr(0, form.find('%')));
    const std::size_t overlap = prefix.size() + kDigits - 1;
    std::set<std::uint32_t> seconds;
    for (const std::string& path : enclosed) {
        LineReader in(path);
        std::string window;
        while (const auto piece = in.IsOpen() ? in.NextPiece(kBlock) : std::nullopt) {
            window.append(*piece);
            if (window.size() < kBlock)
                continue;
            AddSeconds(window, prefix, &seconds);
            window.erase(0, window.size() - overlap);
        }
        AddSeconds(window, prefix, &seconds);
    }
    auto second = static_cast<std::uint32_t>(Now());
    while (seconds.contains(second))
        ++second;
    return FormatText(format, second);
}

}  // namespace dl
