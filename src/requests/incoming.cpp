#include "requests/incoming.h"

#include <new>

#include "platform/address/address.h"
#include "platform/log/format.h"

namespace dl
{
namespace
{

// What `form` gives; empty when memory runs out.
template <typename Form>
std::string OrNone(Form form)
{
    try {
        return form();
    } catch (const std::bad_alloc&) {
        return "";
    }
}

}  // namespace

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
    return OrNone([&list] {
        const ListAlias parts = SplitAlias(list, 0);
        return parts.local.empty()
                   ? std::string()
                   : FormatText("%s-owner@%s", parts.local.c_str(), parts.domain.c_str());
    });
}

std::string RequestAddress(const std::string& list)
{
    return OrNone([&list] {
        const ListAlias parts = SplitAlias(list, 0);
        return parts.local.empty()
                   ? std::string()
                   : FormatText("%s-request@%s", parts.local.c_str(), parts.domain.c_str());
    });
}

ListAlias SplitAlias(const std::string& address, std::size_t suffix)
{
    RT parsed;
    ListAlias parts;
    try {
        if (RecipParse(address, &parsed, 1) == 1 && parsed.addresses[0].local.size() > suffix) {
            parts.local = parsed.addresses[0].local;
            parts.domain = parsed.addresses[0].domain;
            parts.length = static_cast<int>(parts.local.size() - suffix);
        }
    } catch (const std::bad_alloc&) {
        parts = {};
    }
    Clear_RT(&parsed);
    return parts;
}

std::string ListAlias::List() const
{
    return OrNone([this] {
        return local.empty() ? std::string()
                             : FormatText("%.*s@%s", length, local.c_str(), domain.c_str());
    });
}

}  // namespace dl
