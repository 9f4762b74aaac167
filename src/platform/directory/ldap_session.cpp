// The LDAP server behind the directory, through libldap: connecting, binding, searching.
#include <cstdlib>
#include <mutex>

#include "platform/address/address.h"
#include "platform/directory/ldap_session_private.h"
#include "platform/directory/matching.h"

namespace dl
{
namespace
{

constexpr char kSystemAuthorities[] = "/etc/ssl/certs/ca-certificates.crt";

// ldap.conf, ~/.ldaprc and LDAP* variables would otherwise put in a base, a size limit or weaker
// TLS rules that nobody sees in this system's configuration.
void IgnoreForeignSettings()
{
    static std::once_flag once;
    std::call_once(once, [] { (void)setenv("LDAPNOINIT", "1", 1); });
}

bool IsUri(const std::string& host)
{
    return host.starts_with("ldap://") || host.starts_with("ldaps://") ||
           host.starts_with("ldapi://");
}

std::string MakeUri(const std::string& host, int port)
{
    if (IsUri(host))
        return host;
    const std::string name = host.empty() ? "localhost" : host;
    const bool bare_ipv6 = name[0] != '[' && name.find(':') != name.rfind(':');
    return "ldap://" + (bare_ipv6 ? "[" + name + "]" : name) + ":" +
           std::to_string(port == 0 ? LDAP_PORT : port) + "/";
}

}  // namespace

std::string LdapReason(LDAP* handle, int code)
{
    if (code == LDAP_REFERRAL)
        return "a part of it lies on another server (set BaseDN to leave that out)";
    std::string reason = ldap_err2string(code);
    char* detail = nullptr;
    if (ldap_get_option(handle, LDAP_OPT_DIAGNOSTIC_MESSAGE, &detail) == LDAP_OPT_SUCCESS &&
        detail) {
        const Owned<char> owner(detail);
        if (*detail)
            reason += std::string(" (") + detail + ")";
    }
    return reason;
}

bool LdapSession::SetOptions()
{
    const int version = LDAP_VERSION3;
    timeval wait{};
    wait.tv_sec = settings_.timeout_seconds;
    // The first time-out covers connecting, the second a server that accepts and says nothing.
    return ldap_set_option(handle_, LDAP_OPT_PROTOCOL_VERSION, &version) == LDAP_OPT_SUCCESS &&
           ldap_set_option(handle_, LDAP_OPT_NETWORK_TIMEOUT, &wait) == LDAP_OPT_SUCCESS &&
           ldap_set_option(handle_, LDAP_OPT_TIMEOUT, &wait) == LDAP_OPT_SUCCESS &&
           ldap_set_option(handle_, LDAP_OPT_REFERRALS, LDAP_OPT_OFF) == LDAP_OPT_SUCCESS;
}

// Only where TLS is used: reading the system's list of authorities takes longer than most searches.
bool LdapSession::SetTlsOptions()
{
    const int demand = LDAP_OPT_X_TLS_DEMAND;
    const int client = 0;
    const char* authorities =
        settings_.ca_file.empty() ? kSystemAuthorities : settings_.ca_file.c_str();
    return ldap_set_option(handle_, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand) == LDAP_OPT_SUCCESS &&
           ldap_set_option(handle_, LDAP_OPT_X_TLS_CACERTFILE, authorities) == LDAP_OPT_SUCCESS &&
           ldap_set_option(handle_, LDAP_OPT_X_TLS_NEWCTX, &client) == LDAP_OPT_SUCCESS;
}

bool LdapSession::Connect(const std::string& host, int port)
{
    const NoPipeSignal quiet;
    Unbind();
    IgnoreForeignSettings();
    settings_ = ReadDirectorySettings();
    const std::string uri = MakeUri(host, port);
    if (port < 0 || port > 65535 || ldap_initialize(&handle_, uri.c_str()) != LDAP_SUCCESS) {
        LogDirectory(5, "%s, port %d is no address of a server", host.c_str(), port);
        handle_ = nullptr;
        return false;
    }
    const bool start_tls = settings_.start_tls && uri.starts_with("ldap://");
    const bool tls = start_tls || uri.starts_with("ldaps://");
    const bool ready = SetOptions() && (!tls || SetTlsOptions()) &&
                       connection_.Guard(handle_, settings_.timeout_seconds, tls);
    int code = ready ? ldap_connect(handle_) : LDAP_LOCAL_ERROR;
    if (code == LDAP_SUCCESS && start_tls)
        code = ldap_start_tls_s(handle_, nullptr, nullptr);
    connection_.HandshakeDone();
    if (code == LDAP_SUCCESS)
        return true;
    LogDirectory(5, "%s: %s", uri.c_str(), LdapReason(handle_, code).c_str());
    Unbind();
    return false;
}

bool LdapSession::Bind(const std::string& user, const std::string& password)
{
    const NoPipeSignal quiet;
    if (!handle_)
        return false;
    if (!user.empty() && password.empty()) {
        LogDirectory(5, "bind as %s refused: no password is configured", user.c_str());
        return false;
    }
    berval secret = AsBerval(password);
    const int code = ldap_sasl_bind_s(handle_, user.c_str(), LDAP_SASL_SIMPLE, &secret, nullptr,
                                      nullptr, nullptr);
    if (code != LDAP_SUCCESS)
        LogDirectory(5, "bind as %s: %s", user.empty() ? "anonymous" : user.c_str(),
                     LdapReason(handle_, code).c_str());
    return code == LDAP_SUCCESS;
}

SearchReq LdapSession::Search(const char* base, int scope, bool attributes_only,
                              const std::string& filter)
{
    const NoPipeSignal quiet;
    if (!handle_)
        return FailedSearch();
    Query query{base ? base : settings_.base, scope, attributes_only, filter, ""};
    SearchReq result;
    do {
        const int code = SearchPage(&query, &result);
        if (code != LDAP_SUCCESS) {
            LogDirectory(1, "search of %s below \"%s\" failed after %zu entries: %s",
                         filter.c_str(), query.base.c_str(), result.entries.size(),
                         LdapReason(handle_, code).c_str());
            return FailedSearch();
        }
    } while (!query.cookie.empty());
    return result;
}

int LdapSession::SearchPage(Query* query, SearchReq* result)
{
    berval cookie = AsBerval(query->cookie);
    LDAPControl* made = nullptr;
    // Critical: a server that cannot do pages must say so rather than answer with its first few.
    int code = ldap_create_page_control(handle_, settings_.page_size, &cookie, 1, &made);
    if (code != LDAP_SUCCESS)
        return code;
    const Owned<LDAPControl> page(made);
    LDAPControl* controls[] = {page.get(), nullptr};
    int id = 0;
    code = ldap_search_ext(handle_, query->base.c_str(), query->scope, query->filter.c_str(),
                           nullptr, query->attributes_only ? 1 : 0, controls, nullptr, nullptr,
                           LDAP_NO_LIMIT, &id);
    if (code != LDAP_SUCCESS)
        return code;
    code = ReadPage(id, query, result);
    if (code != LDAP_SUCCESS)
        (void)ldap_abandon_ext(handle_, id, nullptr, nullptr);  // the search has failed anyway
    return code;
}

// Takes the messages of one page one by one, so that no second copy of the page stands in memory.
int LdapSession::ReadPage(int id, Query* query, SearchReq* result)
{
    for (;;) {
        timeval wait{};
        wait.tv_sec = settings_.timeout_seconds;
        LDAPMessage* got = nullptr;
        const int type = ldap_result(handle_, id, LDAP_MSG_ONE, &wait, &got);
        const Owned<LDAPMessage> message(got);
        int code = LDAP_SUCCESS;
        switch (type) {
            case LDAP_RES_SEARCH_ENTRY:
                code = TakeEntry(got, query->attributes_only, result);
                break;
            case LDAP_RES_SEARCH_RESULT:
                return EndPage(got, &query->cookie);
            case LDAP_RES_SEARCH_REFERENCE:
                // A part of the tree lies on another server: what came would be a short list.
                return LDAP_REFERRAL;
            case LDAP_RES_INTERMEDIATE:
                break;
            case 0:
                return LDAP_TIMEOUT;
            default:
                (void)ldap_get_option(handle_, LDAP_OPT_RESULT_CODE, &code);
                return code == LDAP_SUCCESS ? LDAP_SERVER_DOWN : code;
        }
        if (code != LDAP_SUCCESS)
            return code;
    }
}

int LdapSession::TakeEntry(LDAPMessage* entry, bool attributes_only, SearchReq* result)
{
    BerElement* cursor = nullptr;
    berval dn{};
    int code = ldap_get_dn_ber(handle_, entry, &cursor, &dn);
    const Owned<BerElement> owner(cursor);
    if (code != LDAP_SUCCESS)
        return code;
    SearchEntry taken;
    taken.dn.assign(dn.bv_val, dn.bv_len);
    berval name{};
    berval* values = nullptr;
    while ((code = ldap_get_attribute_ber(handle_, entry, cursor, &name, &values)) ==
               LDAP_SUCCESS &&
           name.bv_val) {
        const std::string_view kept =
            result->names.Keep(SchemaName(std::string_view(name.bv_val, name.bv_len)));
        if (attributes_only)
            taken.attributes.push_back({kept, {}});
        for (std::size_t i = 0; values && values[i].bv_val; i++)
            taken.attributes.push_back({kept, {values[i].bv_val, values[i].bv_len}});
        ber_memfree(values);  // the array; the values lie in the message
        values = nullptr;
    }
    result->entries.push_back(std::move(taken));
    return code;
}

int LdapSession::EndPage(LDAPMessage* message, std::string* cookie)
{
    cookie->clear();
    int answer = LDAP_SUCCESS;
    LDAPControl** made = nullptr;
    int code = ldap_parse_result(handle_, message, &answer, nullptr, nullptr, nullptr, &made, 0);
    const Owned<LDAPControl*> controls(made);
    if (code != LDAP_SUCCESS || answer != LDAP_SUCCESS)
        return code != LDAP_SUCCESS ? code : answer;
    LDAPControl* page = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, made, nullptr);
    if (!page)
        return LDAP_SUCCESS;
    ber_int_t estimate = 0;
    berval next{};
    code = ldap_parse_pageresponse_control(handle_, page, &estimate, &next);
    if (code == LDAP_SUCCESS && next.bv_val)
        cookie->assign(next.bv_val, next.bv_len);
    ber_memfree(next.bv_val);
    return code;
}

// The values of one attribute of one entry.
bool LdapSession::ReadValues(const std::string& base, const char* attribute,
                             std::vector<std::string>* values)
{
    char* wanted[] = {const_cast<char*>(attribute), nullptr};  // the library does not write there
    timeval wait{};
    wait.tv_sec = settings_.timeout_seconds;
    LDAPMessage* got = nullptr;
    const int code = ldap_search_ext_s(handle_, base.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)",
                                       wanted, 0, nullptr, nullptr, &wait, LDAP_NO_LIMIT, &got);
    const Owned<LDAPMessage> message(got);
    LDAPMessage* entry = code == LDAP_SUCCESS ? ldap_first_entry(handle_, got) : nullptr;
    berval** found = entry ? ldap_get_values_len(handle_, entry, attribute) : nullptr;
    for (std::size_t i = 0; found && found[i]; ++i)
        values->emplace_back(found[i]->bv_val, found[i]->bv_len);
    ldap_value_free_len(found);
    return !values->empty();
}

bool LdapSession::UnknownAttributes(const std::vector<std::string>& names,
                                    std::vector<std::string>* unknown)
{
    const NoPipeSignal quiet;
    std::vector<std::string> place;
    std::vector<std::string> types;
    if (!handle_ || !ReadValues("", "subschemaSubentry", &place) ||
        !ReadValues(place.front(), "attributeTypes", &types))
        return false;
    std::string all;
    for (const std::string& type : types)
        all += LowerCase(type);
    for (const std::string& name : names)
        if (all.find("'" + LowerCase(name) + "'") == std::string::npos)
            unknown->push_back(name);
    return true;
}

std::unique_ptr<DirectorySession> MakeLdapSession()
{
    return std::make_unique<LdapSession>();
}

}  // namespace dl
