// What the tests of the directory stand on: either back end, holding the same entries.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "platform/directory/directory.h"
#include "tests/support/fixture.h"
#include "tests/support/slapd.h"

namespace dl::testing
{

enum class DirectoryKind { kServer, kFile };

inline constexpr char kStaff[] = "mail=staff@example.org,dc=example,dc=org";

// An entry of class qvlist with these members.
inline std::string ListEntry(const std::string& address, const std::vector<std::string>& members)
{
    std::string entry =
        "dn: mail=" + address + ",dc=example,dc=org\nobjectClass: qvlist\nmail: " + address + "\n";
    for (const std::string& member : members)
        entry += "listmember: " + member + "\n";
    return entry + "\n";
}

// The values of attribute `name` of all entries.
inline std::vector<std::string> Values(const SearchReq& result, std::string_view name)
{
    std::vector<std::string> values;
    for (const SearchEntry& entry : result.entries)
        for (const SearchAttribute& attribute : entry.attributes)
            if (attribute.name == name)
                values.push_back(attribute.value);
    return values;
}

class DirectoryTest : public Fixture
{
 protected:
    // `more`: further lines of section "Ldap".
    void Begin(DirectoryKind kind, const std::string& entries, const std::string& more = "",
               const Slapd::Options& options = {})
    {
        if (kind == DirectoryKind::kFile) {
            file_ = Write("lists.ldif", Slapd::BaseEntries() + entries);
            Configure("[Ldap]\nFile = " + file_ + "\n" + more);
            return;
        }
        server_ = std::make_unique<Slapd>(Path("slapd"), entries, options);
        ASSERT_TRUE(server_->Up()) << server_->Reason();
        Configure(server_->Settings() + more);
    }

    // Connects and binds as the service does.
    bool Open(ldapClient* client, const std::string& user = Slapd::kServiceDn,
              const std::string& password = Slapd::kServicePassword)
    {
        return client->ldapClientConnect("127.0.0.1", server_ ? server_->Port() : 0) == 0 &&
               client->ldapClientBind(user, password) == 0;
    }

    SearchReq Search(const std::string& filter, const char* base = nullptr, int scope = 2)
    {
        ldapClient client;
        EXPECT_TRUE(Open(&client));
        return client.ldapClientSearch(base, scope, false, filter);
    }

    ModifyResult Modify(const std::string& entry, const std::vector<AttributeChange>& changes)
    {
        ldapClient client;
        EXPECT_TRUE(Open(&client));
        return client.ldapClientModify(entry, changes);
    }

    std::vector<std::string> Members(const std::string& list = "staff@example.org")
    {
        const SearchReq result = Search("(&(mail=" + list + ")(objectclass=qvlist))");
        EXPECT_FALSE(result.failed);
        return Values(result, "listmember");
    }

    std::unique_ptr<Slapd> server_;
    std::string file_;
};

inline AttributeChange Add(const std::string& value, const std::string& name = "listmember")
{
    return {AttributeChange::Operation::kAdd, name, value};
}

inline AttributeChange Delete(const std::string& value, const std::string& name = "listmember")
{
    return {AttributeChange::Operation::kDelete, name, value};
}

}  // namespace dl::testing
