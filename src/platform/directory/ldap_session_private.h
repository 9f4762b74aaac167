// One session with an LDAP server, and what its source files share.
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
    void operator()(berval* values) const { ber_memfree(values); }  // the array alone
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
    bool Search(const SearchQuery& query, NamePool* names, const EntrySink& take) override;
    [[nodiscard]] DirectoryMark Mark() const override { return mark_; }
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
    struct Reading {
        const SearchQuery& query;
        std::string base;
        NamePool* names;
        const EntrySink& take;
        std::size_t taken;
        std::string cookie;  // of the next page; empty after the last one
    };

    bool SetOptions();
    bool SetTlsOptions();
    int SearchPage(Reading* reading);
    int ReadPage(int id, Reading* reading);
    int TakeEntry(LDAPMessage* entry, Reading* reading);
    bool ReadValues(const std::string& base, const char* attribute,
                    std::vector<std::string>* values);
    int EndPage(LDAPMessage* message, std::string* cookie);
    ModifyResult Answer(const char* deed, const std::string& entry, int code);
    bool Lacks(const std::string& entry);

    LdapConnection connection_;
    LDAP* handle_ = nullptr;
    DirectorySettings settings_;
    DirectoryMark mark_;
};

}  // namespace dl
