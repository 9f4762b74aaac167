// dlctl spam explain and dlctl store init.

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/support/child.h"
#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

class SpamCommands : public Fixture
{
 protected:
    SpamCommands()
    {
        Configure("[Ldap]\nFile = directory.ldif\n");
        Write("conf/qvmta.ini", "[MsgStore]\nHomeDir = " + Path("template") + "\n");
        Write("conf/directory.ldif",
              "dn: mail=garden@lists.example.org\nobjectClass: qvlist\nmail: "
              "garden@lists.example.org\n"
              "x-spamaction: bounce,Not here.\nx-whitelist: *@friends.example\n"
              "x-ipwhitelist: 10.0.0.1-10.0.0.9\nx-kvtblaction: own.example,ignore\n\n");
    }
    // "<exit status> <last line>"
    std::string Dlctl(const std::vector<std::string>& arguments)
    {
        std::string output;
        const int status = RunDlctl(Path("conf"), arguments, &output);
        output = output.substr(0, output.find_last_not_of('\n') + 1);
        return std::to_string(status) + " " + output.substr(output.rfind('\n') + 1);
    }
};

TEST_F(SpamCommands, ExplainNamesTheVerdict)
{
    const struct {
        const char* name;
        const char* header;
        const char* sender;
        const char* want;
    } rows[] = {
        {"no mark", "A: b\r\n", "a@b.c", "0 verdict 0: not marked as spam: handled normally"},
        {"bounced", "X-Spam-Status: YES\r\n", "a@b.c", "0 verdict 6: spam, bounced to its sender"},
        {"ignored", "X-kvtbl: own.example/1.2.3.4\r\n", "a@b.c",
         "0 verdict 1: spam, ignored: handled normally"},
        {"discarded", "X-kvtbl: own.example,new.example/1.2.3.4\r\n", "a@b.c",
         "0 verdict 2: spam, discarded"},
        {"white-listed sender", "X-Spam-Status: YES\r\n", "x@friends.example",
         "0 verdict 7: the sender is in the list's white list: handled normally"},
        {"white-listed address", "X-kvtbl: new.example/10.0.0.2\r\n", "a@b.c",
         "0 verdict 8: the sending address is in the list's IP white list: handled normally"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string file = Write("m.eml", std::string(row.header) + "\r\nbody\r\n");
        EXPECT_EQ(
            Dlctl({"spam", "explain", file, "garden@lists.example.org", "--sender", row.sender}),
            row.want);
    }
    EXPECT_EQ(Dlctl({"spam", "explain", Path("no"), "garden@lists.example.org"}),
              "1 dlctl: " + Path("no") + " cannot be read");
    EXPECT_EQ(Dlctl({"spam", "explain", Path("m.eml"), "no@lists.example.org"}),
              "2 dlctl: there is no list no@lists.example.org");
    EXPECT_FALSE(std::filesystem::exists(Path("queue"))) << "nothing is sent";
}

TEST_F(SpamCommands, JsonHasAllFieldsAlways)
{
    const auto explain = [this](const std::string& header, const std::string& sender) {
        const std::string file = Write("m.eml", header + "\r\nbody\r\n");
        std::string output;
        EXPECT_EQ(RunDlctl(Path("conf"),
                           {"spam", "explain", file, "garden@lists.example.org", "--sender", sender,
                            "--json"},
                           &output),
                  0);
        auto seen = nlohmann::json::parse(output);
        EXPECT_EQ(seen.at("list"), "garden@lists.example.org");
        EXPECT_EQ(seen.at("file"), file);
        for (const char* name : {"file", "list", "sender"})
            seen.erase(name);
        return seen;
    };
    EXPECT_EQ(
        explain("X-Spam-Status: YES\r\nX-kvtbl: own.example,\xff.x/1.2.3.4\r\n", "a@b.c"),
        nlohmann::json::parse(R"({"marked": true, "blacklists": "own.example,\ufffd.x/1.2.3.4",
        "list_action": "bounce", "hosts": [
          {"host": "own.example", "server_action": "discard", "in_record": false, "list_action": "ignore"},
          {"host": "\ufffd.x", "server_action": "discard", "in_record": false, "list_action": null}],
        "reason": null, "verdict": 2, "meaning": "spam, discarded"})"));
    EXPECT_EQ(explain("X-Spam-Status: YES\r\n", "a@b.c").at("reason"), "Not here.");
    EXPECT_EQ(explain("X-Spam-Status: YES\r\n", "x@friends.example"), nlohmann::json::parse(R"({
        "marked": null, "blacklists": null, "list_action": null, "hosts": [], "reason": null,
        "verdict": 7, "meaning": "the sender is in the list's white list: handled normally"})"));
}

TEST_F(SpamCommands, StoreInitMakesTheTemplate)
{
    EXPECT_EQ(Dlctl({"store", "init"}),
              "0 " + Path("template") + " holds the template of new folders");
    EXPECT_TRUE(std::filesystem::exists(Path("template/msgbody.str")));
    EXPECT_EQ(Dlctl({"store", "init"}).substr(0, 2), "0 ");
    Write("conf/qvmta.ini", "");
    EXPECT_EQ(Dlctl({"store", "init"}),
              "1 dlctl: " + Path("conf/qvmta.ini") +
                  " does not say where: set HomeDir in section [MsgStore]");
}

}  // namespace
}  // namespace dl::testing
