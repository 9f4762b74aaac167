// A mail host of which the spam checks see everything: gateway settings, blacklist records, a
// queue.
#pragma once

#include <string>

#include "antispam/spam_checker.h"
#include "platform/config/config.h"
#include "tests/support/failing_directory.h"
#include "tests/support/failing_queue.h"
#include "tests/support/fixture.h"

namespace dl::testing
{

class SpamFixture : public Fixture
{
 protected:
    SpamFixture()
    {
        Configure(
            "[Ldap]\nFile = directory.ldif\n[Connection]\nGatewayHostName = mx1\n"
            "GatewayDomain = example.org\n");
        Gateway("");
        Records({});
    }

    void Gateway(const std::string& text) { Write("conf/qvmta.ini", text); }
    // The values of the blacklist record, in the directory's order.
    void Records(const std::vector<std::string>& values)
    {
        std::string ldif =
            "dn: cn=PreProcessor,o=example\nobjectClass: qvconfig\ncn: PreProcessor\n";
        for (const std::string& value : values)
            ldif += "x-kvtblaction: " + value + "\n";
        Write("conf/directory.ldif", ldif + "\n");
    }

    FailingDirectory directory;
};

}  // namespace dl::testing
