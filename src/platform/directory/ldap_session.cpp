// The LDAP server behind the directory, through libldap: connecting, binding, reading the schema.
#include <cstdlib>
#include <mutex>

#include "platform/address/address.h"
#include "platform/directory/ldap_session_private.h"

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
    mark_.source = uri + "\n" + settings_.base;
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
    mark_.source += "\n" + user;
    return code == LDAP_SUCCESS;
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
