// Answers that break off anywhere: between cache and server stands a proxy that cuts connections.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/lists/lists_fixture.h"
#include "tests/support/slapd.h"

namespace dl::testing
{
namespace
{

sockaddr_in Loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

// Passes connections on, one at a time, and ends each after so many bytes of the server.
class CuttingProxy
{
 public:
    explicit CuttingProxy(int server) : server_(server), port_(FreePort())
    {
        const sockaddr_in address = Loopback(port_);
        EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(fd_, 8), 0);
        thread_ = std::thread([this] {
            for (int client = -1; (client = accept(fd_, nullptr, nullptr)) >= 0;)
                Serve(client);
        });
    }
    ~CuttingProxy()
    {
        shutdown(fd_, SHUT_RDWR);
        thread_.join();
        close(fd_);
    }
    CuttingProxy(const CuttingProxy&) = delete;
    CuttingProxy& operator=(const CuttingProxy&) = delete;
    [[nodiscard]] int Port() const { return port_; }

    std::atomic<long> most{1L << 40};  // bytes of the server

 private:
    void Serve(int client)
    {
        const sockaddr_in address = Loopback(server_);
        const int server = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        long left = most;
        char buffer[512];
        for (bool open = left > 0; open;) {
            pollfd ends[] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
            poll(ends, 2, -1);
            const bool asks = ends[0].revents != 0;
            const std::size_t size =
                asks ? sizeof buffer
                     : std::min<std::size_t>(sizeof buffer, static_cast<std::size_t>(left));
            const ssize_t got = read(asks ? client : server, buffer, size);
            open = got > 0 &&
                   write(asks ? server : client, buffer, static_cast<std::size_t>(got)) == got;
            left -= asks ? 0 : got;
            open = open && left > 0;
        }
        close(server);
        close(client);
    }

    const int server_;
    const int port_;
    const int fd_ = socket(AF_INET, SOCK_STREAM, 0);
    std::thread thread_;
};

TEST_F(ListsFixture, AnAnswerThatBreaksOffAnywhereLeavesTheLists)
{
    DL_NEED_SLAPD();
    std::string entries;
    for (const char* name : {"a@example.org", "b@example.org", "c@example.org", "d@example.org"})
        entries += "dn: mail=" + std::string(name) +
                   ",dc=example,dc=org\nobjectClass: qvlist\nmail: " + name +
                   "\nlistmember: Immediate;ann@example.com\n\n";
    Slapd server(Path("slapd"), entries);
    ASSERT_TRUE(server.Up()) << server.Reason();
    CuttingProxy proxy(server.Port());
    std::string settings = server.Settings();
    const std::string port = "Port = " + std::to_string(server.Port());
    Configure(settings.replace(settings.find(port), port.size(),
                               "Port = " + std::to_string(proxy.Port())));
    ASSERT_TRUE(cache.InitCache());
    log.ExpectError("");  // each outage says where it was noticed
    // Everything again, or the one list that has another member: the stamps tell.
    for (const bool whole : {true, false}) {
        long cut = 0;
        for (bool failed = true; failed && !HasFailure(); cut += 37) {
            SCOPED_TRACE((whole ? "whole, " : "changes, ") + std::to_string(cut) + " bytes");
            proxy.most = cut;
            if (whole) {
                failed = !cache.InitCache();
            } else {
                EXPECT_TRUE(cache.RefreshCache() || cache.RefreshFailed());
                failed = cache.RefreshFailed();
            }
            EXPECT_EQ(Names(&cache), "a@example.org b@example.org c@example.org d@example.org ");
            EXPECT_EQ(Members(&cache, "b@example.org", "Immediate"),
                      failed || whole ? "ann@example.com " : "ann@example.com bob@example.com ");
            EXPECT_FALSE(cache.WaitsForDirectory());
        }
        EXPECT_GT(cut, 300) << "it did break off";
        proxy.most = 1L << 40;
        ldapClient client;
        ASSERT_EQ(client.ldapClientConnect("127.0.0.1", server.Port()), 0);
        ASSERT_EQ(client.ldapClientBind(Slapd::kServiceDn, Slapd::kServicePassword), 0);
        (void)client.ldapClientModify(
            "mail=b@example.org,dc=example,dc=org",
            {{AttributeChange::Operation::kAdd, "listmember", "Immediate;bob@example.com"}});
    }
    // A look-up that broke off is not "no such list".
    for (long cut = 0; cut < 2000; cut += 37) {
        SCOPED_TRACE("look-up, " + std::to_string(cut) + " bytes");
        proxy.most = cut;
        EXPECT_FALSE(cache.IsCached("nobody@example.org"));
        if (!cache.LookUpFailed())
            break;
        clock.now += 60;
        ASSERT_LT(cut, 1900);
    }
}

}  // namespace
}  // namespace dl::testing
