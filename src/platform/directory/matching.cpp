#include "platform/directory/matching.h"

#include <ldap.h>

#include <algorithm>
#include <array>
#include <memory>

namespace dl
{
namespace
{

struct Attribute {
    std::string_view name;
    bool single;
    bool exact;
};

// deploy/ldap/dlmanager.schema, and what it uses of the server's own.
constexpr std::array kSchema = {
    Attribute{"objectClass", false, false},
    Attribute{"mail", false, false},
    Attribute{"cn", false, false},
    Attribute{"description", false, false},
    Attribute{"dc", true, false},
    Attribute{"listmember", false, false},
    Attribute{"listowner", false, false},
    Attribute{"mode", true, false},
    Attribute{"archive", true, false},
    Attribute{"postingpermission", true, false},
    Attribute{"InvalidPosting", true, false},
    Attribute{"AutoSubscription", true, false},
    Attribute{"RemoveReturnReceiptTo", true, false},
    Attribute{"UseMimeDigest", true, false},
    Attribute{"maxdigestsize", true, false},
    Attribute{"frequency", true, false},
    Attribute{"whichday", true, false},
    Attribute{"DigestDeliverTime", true, false},
    Attribute{"subtxtpath", true, true},
    Attribute{"unsubtxtpath", true, true},
    Attribute{"welcometxtpath", true, true},
    Attribute{"disclaimertxtpath", true, true},
    Attribute{"disclaimerhtmlpath", true, true},
    Attribute{"x-whitelist", false, false},
    Attribute{"x-ipwhitelist", false, false},
    Attribute{"x-kvtblaction", false, false},
    Attribute{"x-spamaction", true, false},
};

const Attribute* Find(std::string_view name)
{
    for (const Attribute& attribute : kSchema)
        if (SameName(attribute.name, name))
            return &attribute;
    return nullptr;
}

constexpr char Lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string Lowered(std::string_view text)
{
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), Lower);
    return out;
}

std::string StepKey(const std::vector<std::pair<std::string, std::string>>& parts)
{
    std::vector<std::string> keys;
    for (const auto& [name, value] : parts) {
        const std::string key = ValueKey(name, value);
        // The length in front keeps "a=b" + "c" and "a=b+c" apart.
        keys.push_back(Lowered(name) + "=" + std::to_string(key.size()) + ":" + key);
    }
    std::sort(keys.begin(), keys.end());
    std::string step;
    for (const std::string& key : keys)
        step += key + "+";
    return step;
}

}  // namespace

bool SameName(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](char x, char y) { return Lower(x) == Lower(y); });
}

bool NameAnswers(std::string_view asked, std::string_view name)
{
    return name.size() >= asked.size() && SameName(asked, name.substr(0, asked.size())) &&
           (name.size() == asked.size() || name[asked.size()] == ';');
}

bool IsAttributeName(std::string_view name)
{
    const auto plain = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    };
    return !name.empty() && plain(name[0]) && std::all_of(name.begin(), name.end(), [&](char c) {
        return plain(c) || c == '-' || c == '.' || c == ';';
    });
}

std::string_view SchemaName(std::string_view name)
{
    const Attribute* attribute = Find(name);
    return attribute ? attribute->name : name;
}

bool IsSingleValued(std::string_view name)
{
    const Attribute* attribute = Find(name);
    return attribute && attribute->single;
}

std::string ValueKey(std::string_view name, std::string_view value)
{
    const Attribute* attribute = Find(name);
    const bool exact = attribute && attribute->exact;
    std::string key;
    key.reserve(value.size());
    bool blank = false;
    for (const char c : value) {
        if (c == ' ') {
            blank = !key.empty();
            continue;
        }
        if (blank)
            key += ' ';
        blank = false;
        key += exact ? c : Lower(c);
    }
    return key;
}

bool EntryName::IsAtOrBelow(const EntryName& base) const
{
    return steps.size() >= base.steps.size() &&
           std::equal(base.steps.rbegin(), base.steps.rend(), steps.rbegin());
}

std::optional<EntryName> ParseEntryName(const std::string& text)
{
    if (text.find('\0') != std::string::npos)
        return std::nullopt;
    LDAPDN parsed = nullptr;
    if (ldap_str2dn(text.c_str(), &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS)
        return std::nullopt;
    const std::unique_ptr<LDAPRDN, decltype(&ldap_dnfree)> owner(parsed, ldap_dnfree);
    EntryName name;
    for (std::size_t i = 0; parsed && parsed[i]; i++) {
        std::vector<std::pair<std::string, std::string>> parts;
        for (LDAPAVA** part = parsed[i]; *part; part++)
            parts.emplace_back(std::string((*part)->la_attr.bv_val, (*part)->la_attr.bv_len),
                               (*part)->la_value.bv_val
                                   ? std::string((*part)->la_value.bv_val, (*part)->la_value.bv_len)
                                   : std::string());
        if (i == 0)
            name.own = parts;
        name.steps.push_back(StepKey(parts));
    }
    return name;
}

}  // namespace dl
