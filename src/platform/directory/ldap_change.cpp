// Changing entries of an LDAP server.
#include <map>

#include "platform/directory/ldap_session_private.h"
#include "platform/directory/matching.h"

namespace dl
{

ModifyResult LdapSession::Answer(const char* deed, const std::string& entry, int code)
{
    switch (code) {
        case LDAP_SUCCESS:
            return ModifyResult::kDone;
        case LDAP_TYPE_OR_VALUE_EXISTS:
        case LDAP_ALREADY_EXISTS:
            return ModifyResult::kAlready;
        case LDAP_NO_SUCH_ATTRIBUTE:
            return ModifyResult::kNotThere;
        case LDAP_SERVER_DOWN:
        case LDAP_TIMEOUT:
        case LDAP_CONNECT_ERROR:
        case LDAP_DECODING_ERROR:
        case LDAP_LOCAL_ERROR:
            LogDirectory(1, "%s %s: %s", deed, entry.c_str(), LdapReason(handle_, code).c_str());
            return ModifyResult::kUnreachable;
        default:
            LogDirectory(5, "%s %s refused: %s", deed, entry.c_str(),
                         LdapReason(handle_, code).c_str());
            return ModifyResult::kRefused;
    }
}

ModifyResult LdapSession::Modify(const std::string& entry,
                                 const std::vector<AttributeChange>& changes)
{
    const NoPipeSignal quiet;
    if (!handle_)
        return ModifyResult::kUnreachable;
    struct One {
        berval value;
        berval* values[2];
        LDAPMod mod;
    };
    std::vector<One> made(changes.size());
    std::vector<LDAPMod*> mods;
    for (std::size_t i = 0; i < changes.size(); i++) {
        One& one = made[i];
        one.value = AsBerval(changes[i].value);
        one.values[0] = &one.value;
        one.values[1] = nullptr;
        one.mod.mod_op =
            LDAP_MOD_BVALUES |
            (changes[i].operation == AttributeChange::Operation::kAdd ? LDAP_MOD_ADD
                                                                      : LDAP_MOD_DELETE);
        one.mod.mod_type = const_cast<char*>(changes[i].name.c_str());
        one.mod.mod_bvalues = one.values;
        mods.push_back(&one.mod);
    }
    mods.push_back(nullptr);
    return Answer("change of", entry,
                  ldap_modify_ext_s(handle_, entry.c_str(), mods.data(), nullptr, nullptr));
}

ModifyResult LdapSession::Add(const std::string& entry,
                              const std::vector<SearchAttribute>& attributes)
{
    const NoPipeSignal quiet;
    if (!handle_)
        return ModifyResult::kUnreachable;
    // A server takes each attribute once, with all its values.
    struct Group {
        std::string name;
        std::vector<berval> values;
        std::vector<berval*> pointers;
        LDAPMod mod{};
    };
    std::vector<Group> groups;
    std::map<std::string, std::size_t> places;
    for (const SearchAttribute& attribute : attributes) {
        const std::string key = ValueKey("", attribute.name);
        const auto [place, is_new] = places.emplace(key, groups.size());
        if (is_new)
            groups.push_back({std::string(attribute.name), {}, {}, {}});
        groups[place->second].values.push_back(AsBerval(attribute.value));
    }
    std::vector<LDAPMod*> mods;
    for (Group& group : groups) {
        for (berval& value : group.values)
            group.pointers.push_back(&value);
        group.pointers.push_back(nullptr);
        group.mod.mod_op = LDAP_MOD_ADD | LDAP_MOD_BVALUES;
        group.mod.mod_type = group.name.data();
        group.mod.mod_bvalues = group.pointers.data();
        mods.push_back(&group.mod);
    }
    mods.push_back(nullptr);
    return Answer("new entry", entry,
                  ldap_add_ext_s(handle_, entry.c_str(), mods.data(), nullptr, nullptr));
}

ModifyResult LdapSession::Delete(const std::string& entry)
{
    const NoPipeSignal quiet;
    if (!handle_)
        return ModifyResult::kUnreachable;
    const int code = ldap_delete_ext_s(handle_, entry.c_str(), nullptr, nullptr);
    if (code == LDAP_NO_SUCH_OBJECT)
        return ModifyResult::kNotThere;
    return Answer("removal of", entry, code);
}

}  // namespace dl
