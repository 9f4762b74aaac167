// One session with an LDAP server, and what its two source files share.
#pragma once

#include <ldap.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/directory/directory_private.h"
#include "platform/directory/ldap_connection_private.h"

namespace dl
{

struct LdapDeleter {
    void operator()(LDAPMessage* message) const { (void)ldap_msgfree(message); }
    void operator()(LDAPControl* control) const { ldap_control_free(control); }
    void operator()(LDAPControl** controls) const { ldap_controls_free(controls); }
    void operator()(BerElement* ber) const { ber_free(ber, 0); }
    void operator()(char* text) const { ldap_memfree(text); }
};
template <typename T>
using Owned = std::unique_ptr<T, LdapDeleter>;

// The library's numbers stay in this folder: a text for the log.
std::string LdapReason(LDAP* handle, int code);

inline berval AsBerval(std::string_view text)
{
    // The library takes char* and does not write there.
    return {text.size(), const_cast<char*>(text.data())};
}

class LdapSession final : public DirectorySession
{
 public:
    ~LdapSession() override { Unbind(); }

    bool Connect(const std::string& host, int port) override;
    bool Bind(const std::string& user, const std::string& password) override;
    SearchReq Search(const char* base, int scope, bool attributes_only,
                     const std::string& filter) override;
    ModifyResult Modify(const std::string& entry,
                        const std::vector<AttributeChange>& changes) override;
    ModifyResult Add(const std::string& entry,
                     const std::vector<SearchAttribute>& attributes) override;
    ModifyResult Delete(const std::string& entry) override;
    bool UnknownAttributes(const std::vector<std::string>& names,
                           std::vector<std::string>* unknown) override;

    void Unbind() override
    {
        const NoPipeSignal quiet;
        if (handle_)
            (void)ldap_unbind_ext_s(handle_, nullptr, nullptr);
        handle_ = nullptr;
    }

 private:
    struct Query {
        std::string base;
        int scope;
        bool attributes_only;
        const std::string& filter;
        std::string cookie;  // of the next page; empty after the last one
    };

    bool SetOptions();
    bool SetTlsOptions();
    int SearchPage(Query* query, SearchReq* result);
    int ReadPage(int id, Query* query, SearchReq* result);
    int TakeEntry(LDAPMessage* entry, bool attributes_only, SearchReq* result);
    bool ReadValues(const std::string& base, const char* attribute,
                    std::vector<std::string>* values);
    int EndPage(LDAPMessage* message, std::string* cookie);
    ModifyResult Answer(const char* deed, const std::string& entry, int code);

    LdapConnection connection_;
    LDAP* handle_ = nullptr;
    DirectorySettings settings_;
};

}  // namespace dl
