// What only a server can do to its clients, and the schema that is shipped for it.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <thread>

#include "tests/contract/directory_contract.h"

namespace dl::testing
{
namespace
{

class LdapDirectory : public DirectoryTest
{
 protected:
    void SetUp() override { DL_NEED_SLAPD(); }
};

// Fails when its life took longer than `seconds`.
class Within
{
 public:
    explicit Within(int seconds) : seconds_(seconds) {}
    ~Within()
    {
        EXPECT_LT(std::chrono::steady_clock::now() - start_, std::chrono::seconds(seconds_));
    }

 private:
    const int seconds_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// Connections to it are made, served with these first bytes of an answer, and no further.
class SilentServer
{
 public:
    explicit SilentServer(const std::string& bytes = "")
        : fd_(socket(AF_INET, SOCK_STREAM, 0)), port_(FreePort())
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port_));
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(fd_, 8), 0);
        if (bytes.empty())
            return;
        speaker_ = std::thread([this, bytes] {
            const int client = accept(fd_, nullptr, nullptr);
            (void)!write(client, bytes.data(), bytes.size());
            char rest[256];
            while (read(client, rest, sizeof rest) > 0) {
            }
            close(client);
        });
    }
    ~SilentServer()
    {
        shutdown(fd_, SHUT_RDWR);
        if (speaker_.joinable())
            speaker_.join();
        close(fd_);
    }
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;
    [[nodiscard]] int Port() const { return port_; }

 private:
    int fd_;
    int port_;
    std::thread speaker_;
};

std::string ManyLists()
{
    std::string entries;
    for (int i = 0; i < 1200; i++)
        entries += ListEntry("list" + std::to_string(i) + "@example.org", {});
    return entries;
}

TEST_F(LdapDirectory, TheSizeLimitIsAFailureAndNeverAShortList)
{
    Begin(DirectoryKind::kServer, ManyLists());
    for (const char* more : {"", "PageSize = 100\n", "PageSize = 5000\n"}) {
        SCOPED_TRACE(more);
        Configure(server_->Settings() + more);
        ldapClient client;
        ASSERT_TRUE(Open(&client, "", ""));
        log.ExpectError("failed after 500 entries: Size limit exceeded");
        const SearchReq result = client.ldapClientSearch(nullptr, 2, false, "objectclass=qvlist");
        EXPECT_TRUE(result.failed);
        EXPECT_TRUE(result.Empty());
        EXPECT_EQ(
            client.ldapClientSearch(nullptr, 2, false, "(mail=list7@example.org)").entries.size(),
            1U);
    }
}

TEST_F(LdapDirectory, APartOfTheTreeElsewhereIsAFailure)
{
    Begin(DirectoryKind::kServer,
          ListEntry("staff@example.org", {}) +
              "dn: dc=far,dc=example,dc=org\nobjectClass: referral\nobjectClass: dcObject\n"
              "dc: far\nref: ldap://127.0.0.1:1/dc=far,dc=example,dc=org\n\n");
    log.ExpectError("a part of it lies on another server");
    EXPECT_TRUE(Search("objectclass=qvlist").failed);
    EXPECT_EQ(Search("objectclass=qvlist", kStaff).entries.size(), 1U);
}

// What a server answers that has not judged the change leaves it open; each entry answers with the
// code of its name.
TEST_F(LdapDirectory, OnlyAJudgementOfTheChangeIsARefusal)
{
    using enum ModifyResult;
    const struct {
        const char* name;
        int code;
        ModifyResult want;
    } kRows[] = {
        {"operationsError", 1, kUnreachable},
        {"protocolError", 2, kUnreachable},
        {"timeLimitExceeded", 3, kUnreachable},
        {"strongerAuthRequired", 8, kRefused},
        {"adminLimitExceeded", 11, kUnreachable},
        {"noSuchAttribute", 16, kNotThere},
        {"constraintViolation", 19, kRefused},
        {"attributeOrValueExists", 20, kAlready},
        {"noSuchObject", 32, kRefused},
        {"insufficientAccessRights", 50, kRefused},
        {"busy", 51, kUnreachable},
        {"unavailable", 52, kUnreachable},
        {"unwillingToPerform", 53, kUnreachable},
        {"objectClassViolation", 65, kRefused},
        {"other", 80, kUnreachable},
    };
    std::string entries;
    for (const auto& row : kRows)
        entries += "dn: cn=" + std::string(row.name) +
                   ",dc=example,dc=org\nobjectClass: errObject\ncn: " + row.name +
                   "\nerrOp: modify\nerrCode: " + std::to_string(row.code) + "\n\ndn: cn=s-" +
                   row.name + ",dc=example,dc=org\nobjectClass: errObject\ncn: s-" + row.name +
                   "\nerrOp: search\nerrCode: " + std::to_string(row.code) + "\n\n";
    Begin(DirectoryKind::kServer, entries, "",
          {.config = "moduleload retcode\noverlay retcode\nretcode-parent cn=none\n"
                     "retcode-indir\n"});
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        const std::string entry = "cn=" + std::string(row.name) + ",dc=example,dc=org";
        if (row.want == kUnreachable)
            log.ExpectError("change of " + entry + ": ");
        EXPECT_EQ(Modify(entry, {Add("Digest;a@b")}), row.want);
        // Of a search none is an answer.
        log.ExpectError("search of (cn=*) below \"cn=s-" + entry.substr(3));
        EXPECT_TRUE(Search("(cn=*)", ("cn=s-" + entry.substr(3)).c_str(), 0).failed);
    }
}

// A server that takes no changes says the same of names that it does not have: these stay refused.
TEST_F(LdapDirectory, AServerThatTakesNoChangesNowRefusesNothing)
{
    const struct {
        const char *name, *config, *reason;
    } kRows[] = {
        {"read-only", "restrict write\n", "Server is unwilling"},
        {"a copy",
         "syncrepl rid=1 provider=ldap://127.0.0.1:1 searchbase=\"\" type=refreshOnly "
         "retry=\"3600 +\" bindmethod=simple\nupdateref ldap://127.0.0.1:1\n",
         "it names another server for changes"},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        Begin(DirectoryKind::kServer, ListEntry("staff@example.org", {}), "",
              {.config = row.config});
        log.ExpectError("change of " + std::string(kStaff) + ": " + row.reason);
        EXPECT_EQ(Modify(kStaff, {Add("Digest;a@b")}), ModifyResult::kUnreachable);
        EXPECT_EQ(Modify("mail=x,dc=example,dc=org", {Add("Digest;a@b")}), ModifyResult::kRefused);
        server_.reset();
        std::filesystem::remove_all(Path("slapd"));
    }
}

TEST_F(LdapDirectory, RefusedBinds)
{
    Begin(DirectoryKind::kServer, "");
    const struct {
        const char *name, *user, *password;
        bool works;
    } kRows[] = {
        {"right", Slapd::kServiceDn, Slapd::kServicePassword, true},

        {"wrong password", Slapd::kServiceDn, "no", false},
        {"no such name", "cn=nobody,dc=example,dc=org", "no", false},
        {"no name of an entry", "dlmanager", "no", false},
        {"no password, which a server may take for anonymous", Slapd::kServiceDn, "", false},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        ldapClient client;
        EXPECT_EQ(Open(&client, row.user, row.password), row.works);
        EXPECT_FALSE(log.HasPart(Slapd::kServicePassword));
    }
    ldapClient anonymous;
    ASSERT_TRUE(Open(&anonymous, "", ""));
    EXPECT_EQ(anonymous.ldapClientModify("dc=example,dc=org", {Add("x", "description")}),
              ModifyResult::kRefused);
}

// Nothing, the beginning of an answer, nothing where TLS is to begin; and no request is taken.
TEST_F(LdapDirectory, AServerThatSaysNothingIsGivenUp)
{
    const Within limit(30);
    const std::string half("\x30\x84\x00\x00\x10\x00\x02\x01\x01\x61", 10);
    for (const std::string& said : {std::string(), half}) {
        Configure("[Ldap]\nTimeOut = 1\n");
        const SilentServer silent(said);
        ldapClient client;
        EXPECT_EQ(client.ldapClientConnect("127.0.0.1", silent.Port()), 0);
        EXPECT_NE(client.ldapClientBind("", ""), 0);
        ldapClient secure;
        EXPECT_NE(secure.ldapClientConnect("ldaps://127.0.0.1:" + std::to_string(silent.Port()), 0),
                  0);
        Configure("[Ldap]\nTimeOut = 1\nStartTLS = 1\n");
        ldapClient later;
        EXPECT_NE(later.ldapClientConnect("127.0.0.1", silent.Port()), 0);
    }
    Configure("[Ldap]\nTimeOut = 1\n");
    const SilentServer silent;
    ldapClient client;
    ASSERT_EQ(client.ldapClientConnect("127.0.0.1", silent.Port()), 0);
    const std::string long_value(20'000'000, 'x');  // more than the system buffers
    log.ExpectError("new entry mail=a: Timed out");
    EXPECT_EQ(client.AddEntry("mail=a", {{"listmember", long_value}}), ModifyResult::kUnreachable);
}

TEST_F(LdapDirectory, AServerThatFallsSilentIsGivenUp)
{
    Begin(DirectoryKind::kServer, ListEntry("staff@example.org", {}), "TimeOut = 1\n");
    ldapClient client;
    ASSERT_TRUE(Open(&client));
    server_->Freeze();
    {
        const Within limit(8);
        log.ExpectError(
            "search of objectclass=qvlist below \"\" failed after 0 entries: Timed out");
        EXPECT_TRUE(client.ldapClientSearch(nullptr, 2, false, "objectclass=qvlist").failed);
        log.ExpectError("change of mail=staff@example.org,dc=example,dc=org: Timed out");
        EXPECT_EQ(client.ldapClientModify(kStaff, {Add("Digest;a@example.org")}),
                  ModifyResult::kUnreachable);
    }
    server_->Thaw();
}

TEST_F(LdapDirectory, AddressesOfServers)
{
    Begin(DirectoryKind::kServer, "");
    const std::string port = std::to_string(server_->Port());
    const struct {
        std::string host;
        int port;
        bool works;
    } kRows[] = {
        {"127.0.0.1", server_->Port(), true},
        {"ldap://127.0.0.1:" + port + "/", 1, true},
        {"127.0.0.1", 1, false},

        {"127.0.0.1", 70000, false},

        {"no host/", 1, false},
        {std::string("127.0.0.1\0x", 11), 1, false},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.host + " " + std::to_string(row.port));
        ldapClient client;
        EXPECT_EQ(client.ldapClientConnect(row.host, row.port) == 0, row.works);
    }
}

TEST_F(LdapDirectory, CertificatesAreVerified)
{
    Slapd server(Path("slapd"), ListEntry("staff@example.org", {}), {.tls = true});
    ASSERT_TRUE(server.Up()) << server.Reason();
    const std::string trusted = "TLSCACertFile = " + server.Certificate() + "\n";
    const std::string plain = "ldap://127.0.0.1:" + std::to_string(server.Port());
    const struct {
        const char* name;
        std::string host, settings;
        bool works;
    } kRows[] = {
        {"ldaps", server.SecureUri(), trusted, true},
        {"ldaps, unknown authority", server.SecureUri(), "", false},
        {"ldaps, no such list", server.SecureUri(), "TLSCACertFile = /nowhere\n", false},
        {"StartTLS", plain, "StartTLS = 1\n" + trusted, true},
        {"StartTLS, unknown authority", plain, "StartTLS = 1\n", false},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        Configure("[Ldap]\n" + row.settings);
        ldapClient client;
        EXPECT_EQ(client.ldapClientConnect(row.host, 0) == 0, row.works);
        if (!row.works)
            continue;
        EXPECT_EQ(client.ldapClientBind(Slapd::kServiceDn, Slapd::kServicePassword), 0);
        EXPECT_EQ(client.ldapClientSearch(nullptr, 2, false, "objectclass=qvlist").entries.size(),
                  1U);
    }
}

// The library reads them once in a process: the test means something when it runs alone, as under
// ctest.
TEST_F(LdapDirectory, SettingsForOtherLdapProgramsDoNotCount)
{
    const std::vector<std::pair<const char*, const char*>> kForeign = {
        {"LDAPDEREF", "always"}, {"LDAPBASE", "dc=nowhere"}, {"LDAPTLS_REQCERT", "never"}};
    for (const auto& [name, value] : kForeign)
        setenv(name, value, 1);
    Begin(DirectoryKind::kServer,
          "dn: cn=alias,dc=example,dc=org\nobjectClass: alias\nobjectClass: extensibleObject\n"
          "cn: alias\naliasedObjectName: dc=example,dc=org\n\n");
    EXPECT_EQ(Search("objectclass=alias").entries.size(), 1U);
    for (const auto& foreign : kForeign)
        unsetenv(foreign.first);
}

// The definitions that a server keeps after loading, unfolded.
std::vector<std::string> Definitions(const std::string& folder)
{
    std::string kept = ReadFile(folder + "/cn=config/cn=schema/cn={1}dlmanager.ldif");
    for (std::size_t fold = 0; (fold = kept.find("\n ", fold)) != std::string::npos;)
        kept.erase(fold, 2);
    std::vector<std::string> lines;
    std::istringstream in(kept);
    for (std::string line; std::getline(in, line);)
        if (line.starts_with("olcAttributeTypes") || line.starts_with("olcObjectClasses"))
            lines.push_back(line);
    return lines;
}

TEST_F(LdapDirectory, BothFormsOfTheSchemaLoadAndAreTheSame)
{
    const std::string schema = std::string(DL_SOURCE) + "/deploy/ldap/dlmanager";
    std::string output;
    std::filesystem::create_directory(Path("from_schema"));
    std::filesystem::create_directory(Path("from_ldif"));
    const std::string conf = Write(
        "slapd.conf", "include /etc/ldap/schema/core.schema\ninclude " + schema + ".schema\n");
    EXPECT_EQ(RunProgram({"/usr/sbin/slaptest", "-f", conf, "-F", Path("from_schema")}, &output), 0)
        << output;
    const std::string config =
        Write("config.ldif",
              "dn: cn=config\nobjectClass: olcGlobal\ncn: config\n\n"
              "dn: cn=schema,cn=config\nobjectClass: olcSchemaConfig\ncn: schema\n\n"
              "include: file:///etc/ldap/schema/core.ldif\ninclude: file://" +
                  schema + ".ldif\n");
    EXPECT_EQ(
        RunProgram({"/usr/sbin/slapadd", "-n0", "-F", Path("from_ldif"), "-l", config}, &output), 0)
        << output;
    const std::vector<std::string> loaded = Definitions(Path("from_schema"));
    EXPECT_EQ(loaded.size(), 25U);
    EXPECT_EQ(loaded, Definitions(Path("from_ldif")));
}

}  // namespace
}  // namespace dl::testing
