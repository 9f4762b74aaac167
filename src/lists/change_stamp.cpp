#include "lists/change_stamp.h"

#include <algorithm>

#include "platform/address/address.h"

namespace dl
{
namespace
{

constexpr char kSequenceNumber[] = "entryCSN";
constexpr char kTime[] = "modifyTimestamp";
constexpr std::time_t kClocksDiffer = 300;  // seconds, between the server's clock and ours
constexpr std::size_t kSecondLength = 14;

// "YYYYmmddHHMMSS", as a generalized time begins.
std::string SecondOf(std::time_t moment)
{
    char text[32];
    std::tm date{};
    if (!gmtime_r(&moment, &date) || std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &date) == 0)
        return "";
    return text;
}

// A second in UTC; a fraction behind it is left alone.
bool IsSecond(const std::string& time)
{
    return time.size() > kSecondLength && time.back() == 'Z' &&
           time.find_first_not_of("0123456789") >= kSecondLength;
}

}  // namespace

ChangeStamps::ChangeStamps(std::time_t now) : settled_before_(SecondOf(now - kClocksDiffer)) {}

const std::vector<std::string>& ChangeStamps::Attributes()
{
    static const std::vector<std::string> names = {kSequenceNumber, kTime};
    return names;
}

std::string ChangeStamps::Take(SearchEntry* entry) const
{
    std::string number;
    std::string time;
    std::erase_if(entry->attributes, [&](SearchAttribute& attribute) {
        std::string* taken = EqualNoCase(attribute.name, kSequenceNumber) ? &number
                             : EqualNoCase(attribute.name, kTime)         ? &time
                                                                          : nullptr;
        if (taken)
            *taken = std::move(attribute.value);
        return taken != nullptr;
    });
    if (!number.empty())
        return number;
    return IsSecond(time) && time.compare(0, kSecondLength, settled_before_) < 0 ? time : "";
}

}  // namespace dl
