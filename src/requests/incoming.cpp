#include "requests/incoming.h"

#include "platform/address/address.h"
#include "platform/log/format.h"

namespace dl
{

std::string OneLine(const std::string& text)
{
    std::string line = text;
    for (char& c : line)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            c = '?';
    return line;
}

std::string OwnerAddress(const std::string& list)
{
    const ListAlias parts = SplitAlias(list, 0);
    return parts.local.empty()
               ? ""
               : FormatText("%s-owner@%s", parts.local.c_str(), parts.domain.c_str());
}

std::string RequestAddress(const std::string& list)
{
    const ListAlias parts = SplitAlias(list, 0);
    return parts.local.empty()
               ? ""
               : FormatText("%s-request@%s", parts.local.c_str(), parts.domain.c_str());
}

ListAlias SplitAlias(const std::string& address, std::size_t suffix)
{
    RT parsed;
    ListAlias parts;
    if (RecipParse(address, &parsed, 1) == 1 && parsed.addresses[0].local.size() > suffix) {
        parts.local = parsed.addresses[0].local;
        parts.domain = parsed.addresses[0].domain;
        parts.length = static_cast<int>(parts.local.size() - suffix);
    }
    Clear_RT(&parsed);
    return parts;
}

std::string ListAlias::List() const
{
    return local.empty() ? "" : FormatText("%.*s@%s", length, local.c_str(), domain.c_str());
}

}  // namespace dl
