// A private LDAP server for a test: the system's slapd with the schema of deploy/ldap, on a free
// port of 127.0.0.1, with its data in a folder of the test.
//
// It holds dc=org, dc=example,dc=org and the service's own name, which may read any number of
// entries; everybody else gets 500 at most. It ends with the object.
#pragma once

#include <memory>
#include <string>

#include "tests/support/child.h"

namespace dl::testing
{

class Slapd
{
 public:
    static constexpr char kServiceDn[] = "cn=dlmanager,dc=example,dc=org";
    static constexpr char kServicePassword[] = "service-secret";
    static constexpr char kAdminDn[] = "cn=admin";
    static constexpr char kAdminPassword[] = "admin-secret";
    // The entries that are always there, as LDIF; a file directory of the same content begins with
    // them.
    static std::string BaseEntries();

    static bool Installed();

    // Rules that hide from the service when an entry was changed.
    static constexpr char kNoEntryCsn[] = "access to attrs=entryCSN by * none\n";
    static constexpr char kNoStamps[] = "access to attrs=entryCSN,modifyTimestamp by * none\n";

    struct Options {
        // With a certificate of its own for localhost and 127.0.0.1, listening for ldaps too.
        bool tls = false;
        std::string config = {};  // further lines of slapd.conf, before its rules of access
    };
    // Loads `entries` (LDIF) behind the base entries and starts. `folder` is made.
    Slapd(const std::string& folder, const std::string& entries, const Options& options);
    Slapd(const std::string& folder, const std::string& entries) : Slapd(folder, entries, {}) {}

    [[nodiscard]] bool Up();  // false: Reason() tells
    [[nodiscard]] const std::string& Reason() const { return reason_; }
    [[nodiscard]] int Port() const { return port_; }
    [[nodiscard]] std::string SecureUri() const;
    [[nodiscard]] std::string Certificate() const { return folder_ + "/server.pem"; }
    // The lines of section "Ldap" by which the service reaches it.
    [[nodiscard]] std::string Settings() const;

    void Kill();                 // SIGKILL: connections break
    [[nodiscard]] bool Start();  // again, on the same port with the same data
    void Freeze();               // it accepts connections and says nothing
    void Thaw();

 private:
    bool WriteConfig(const Options& options);
    bool Load(const std::string& entries);
    bool Fail(const std::string& what, const std::string& output);

    const std::string folder_;
    const bool tls_;
    int port_ = 0;
    int secure_port_ = 0;
    std::unique_ptr<Child> server_;
    std::string reason_;
};

}  // namespace dl::testing

// Skips the test where slapd is not installed; on a build server, where it must be, fails it.
#define DL_NEED_SLAPD()                                                  \
    do {                                                                 \
        if (!::dl::testing::Slapd::Installed()) {                        \
            if (std::getenv("CI"))                                       \
                FAIL() << "/usr/sbin/slapd is missing: install slapd";   \
            GTEST_SKIP() << "/usr/sbin/slapd is missing: install slapd"; \
        }                                                                \
    } while (false)
