#include "tests/support/slapd.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

constexpr char kServer[] = "/usr/sbin/slapd";

bool Listens(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    const bool open = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return open;
}

std::string Url(const char* scheme, int port)
{
    return std::string(scheme) + "://127.0.0.1:" + std::to_string(port) + "/";
}

}  // namespace

std::string Slapd::BaseEntries()
{
    return std::string(
               "dn: dc=org\nobjectClass: dcObject\nobjectClass: organization\ndc: org\no: org\n\n"
               "dn: dc=example,dc=org\nobjectClass: dcObject\nobjectClass: organization\n"
               "dc: example\no: example\n\ndn: ") +
           kServiceDn +
           "\nobjectClass: organizationalRole\nobjectClass: simpleSecurityObject\n"
           "cn: dlmanager\nuserPassword: " +
           kServicePassword + "\n\n";
}

bool Slapd::Installed()
{
    return access(kServer, X_OK) == 0;
}

Slapd::Slapd(const std::string& folder, const std::string& entries, const Options& options)
    : folder_(folder), tls_(options.tls)
{
    std::filesystem::create_directories(folder_ + "/db");
    if (!WriteConfig(options) || !Load(entries))
        return;
    for (int i = 0; i < 3; i++) {  // another test may have taken the port meanwhile
        port_ = FreePort();
        secure_port_ = FreePort();
        if (Start())
            return;
    }
}

bool Slapd::Fail(const std::string& what, const std::string& output)
{
    reason_ = what + ": " + output;
    return false;
}

bool Slapd::WriteConfig(const Options& options)
{
    std::ofstream config(folder_ + "/slapd.conf");
    config << "include /etc/ldap/schema/core.schema\n"
           << "include " << DL_SOURCE << "/deploy/ldap/dlmanager.schema\n";
    if (tls_)
        config << "TLSCertificateFile " << Certificate() << "\nTLSCertificateKeyFile " << folder_
               << "/server.key\n";
    config << "pidfile " << folder_ << "/slapd.pid\n"
           << "modulepath /usr/lib/ldap\nmoduleload back_mdb\ndatabase mdb\nsuffix \"\"\n"
           << "rootdn " << kAdminDn << "\nrootpw " << kAdminPassword << "\ndirectory " << folder_
           << "/db\nmaxsize 17179869184\ndbnosync\nindex objectClass,mail,listmember eq\n"
           << "limits dn.exact=\"" << kServiceDn << "\" size=unlimited time=unlimited\n"
           << options.config << "access to attrs=userPassword by anonymous auth\n"
           << "access to * by dn.exact=\"" << kServiceDn << "\" write by * read\n";
    config.close();
    std::string output;
    if (tls_ &&
        RunProgram({"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", folder_ + "/server.key",
                    "-out", Certificate(), "-subj", "/CN=localhost", "-addext",
                    "subjectAltName=DNS:localhost,IP:127.0.0.1", "-days", "2"},
                   &output) != 0)
        return Fail("openssl", output);
    return config.good() || Fail("cannot write", folder_);
}

bool Slapd::Load(const std::string& entries)
{
    const std::string file = folder_ + "/entries.ldif";
    std::ofstream(file, std::ios::binary) << BaseEntries() << entries;
    constexpr int kPatience = 600;  // seconds; ten million members take a while
    const std::string output = folder_ + "/slapadd.out";
    Child load({"/usr/sbin/slapadd", "-q", "-f", folder_ + "/slapd.conf", "-l", file}, output);
    return load.Wait(kPatience) == 0 || Fail("slapadd", ReadFile(output));
}

bool Slapd::Start()
{
    std::string urls = Url("ldap", port_);
    if (tls_)
        urls += " " + SecureUri();
    server_ = std::make_unique<Child>(
        std::vector<std::string>{kServer, "-h", urls, "-f", folder_ + "/slapd.conf", "-d", "0"},
        folder_ + "/slapd.out");
    for (int i = 0; i < 2000 && server_->Running(); i++) {
        if (Listens(port_) && (!tls_ || Listens(secure_port_))) {
            reason_.clear();
            return true;
        }
        usleep(5000);
    }
    server_.reset();
    // With "-d 0" it says nothing of its configuration.
    std::string output;
    (void)RunProgram({"/usr/sbin/slaptest", "-u", "-f", folder_ + "/slapd.conf"}, &output);
    return Fail("slapd does not start", output);
}

bool Slapd::Up()
{
    return server_ && server_->Running();
}

std::string Slapd::SecureUri() const
{
    return Url("ldaps", secure_port_);
}

std::string Slapd::Settings() const
{
    return "[Ldap]\nHostName = 127.0.0.1\nPort = " + std::to_string(port_) +
           "\nUsername = " + kServiceDn + "\nPassword = " + kServicePassword + "\n";
}

void Slapd::Kill()
{
    server_.reset();
}

void Slapd::Freeze()
{
    server_->Stop();
}

void Slapd::Thaw()
{
    server_->Signal(SIGCONT);
}

}  // namespace dl::testing
