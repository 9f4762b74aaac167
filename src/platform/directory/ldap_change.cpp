// Changing entries of an LDAP server.
#include <map>

#include "platform/directory/ldap_session_private.h"
#include "platform/directory/matching.h"

namespace dl
{
namespace
{

// Whether by `code` (RFC 4511, appendix A) the server has judged the change and who asks for it,
// and said no. Everything else says something of the server, or of the way to it: busy,
// unavailable, over a limit, "other", a request that it did not understand, a library that could
// not send. Whether the change can be made is not known then, and nobody may be told that it was
// refused.
bool IsRefusal(int code)
{
    switch (code) {
        case LDAP_STRONG_AUTH_REQUIRED:
        case LDAP_CONFIDENTIALITY_REQUIRED:
        case LDAP_UNDEFINED_TYPE:
        case LDAP_INAPPROPRIATE_MATCHING:
        case LDAP_CONSTRAINT_VIOLATION:
        case LDAP_INVALID_SYNTAX:
        case LDAP_NO_SUCH_OBJECT:
        case LDAP_ALIAS_PROBLEM:
        case LDAP_INVALID_DN_SYNTAX:
        case LDAP_ALIAS_DEREF_PROBLEM:
        case LDAP_INAPPROPRIATE_AUTH:
        case LDAP_INSUFFICIENT_ACCESS:
        case LDAP_NAMING_VIOLATION:
        case LDAP_OBJECT_CLASS_VIOLATION:
        case LDAP_NOT_ALLOWED_ON_NONLEAF:
        case LDAP_NOT_ALLOWED_ON_RDN:
        case LDAP_NO_OBJECT_CLASS_MODS:
        case LDAP_AFFECTS_MULTIPLE_DSAS:
            return true;
        default:
            return false;
    }
}

}  // namespace

// Whether the server says that it has no such entry.
bool LdapSession::Lacks(const std::string& entry)
{
    char none[] = LDAP_NO_ATTRS;
    char* names[] = {none, nullptr};
    timeval wait{};
    wait.tv_sec = settings_.timeout_seconds;
    LDAPMessage* got = nullptr;
    const int code = ldap_search_ext_s(handle_, entry.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)",
                                       names, 1, nullptr, nullptr, &wait, LDAP_NO_LIMIT, &got);
    const Owned<LDAPMessage> message(got);
    return code == LDAP_NO_SUCH_OBJECT;
}

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
        default:
            break;
    }
    const std::string reason =
        code == LDAP_REFERRAL ? "it names another server for changes" : LdapReason(handle_, code);
    // A server that is read-only for now, or a copy that takes no changes, answers with the same
    // two codes as one that knows of no such name: only the latter can never make the change.
    const bool unwilling = code == LDAP_UNWILLING_TO_PERFORM || code == LDAP_REFERRAL;
    if (IsRefusal(code) || (unwilling && Lacks(entry))) {
        LogDirectory(5, "%s %s refused: %s", deed, entry.c_str(), reason.c_str());
        return ModifyResult::kRefused;
    }
    LogDirectory(1, "%s %s: %s", deed, entry.c_str(), reason.c_str());
    return ModifyResult::kUnreachable;
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
