// dlctl check over broken sites: each fault is named with its mend, and --fix mends the safe ones.

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>

#include "platform/address/address.h"
#include "platform/directory/directory.h"
#include "tests/support/child.h"
#include "tests/support/fixture.h"
#include "tests/support/scripted_relay.h"
#include "tests/support/slapd.h"

namespace dl::testing
{
namespace
{

constexpr char kGarden[] = "garden@lists.example.org";

class Check : public Fixture
{
 protected:
    // Everything in order: one list, a relay that answers.
    void MakeSite()
    {
        for (const char* name : {"conf", "data", "log", "queue", "run", "texts"})
            std::filesystem::remove_all(Path(name));
        for (const char* folder : {"queue", "data", "run"})
            std::filesystem::create_directories(Path(folder));
        for (const char* folder : {"", "/digest", "/archive"})
            MakeFolder("data/" + std::string(kGarden) + folder, 0750);
        (void)chmod(Path("queue").c_str(), 0700);
        (void)chmod(Path("data").c_str(), 0750);
        Write("texts/welcome.txt", "Welcome\n");
        Write("data/garden@lists.example.org/digest/digest.dt", "1100000000");
        settings = {{"Gateway", "TimeZone = Europe/Berlin\n"},
                    {"Connection", "GatewayHostName = mail\nGatewayDomain = example.org\n"},
                    {"Ldap", "File = directory.ldif\n"},
                    {"DlManager", "DbPath = " + Path("data") + "\n"},
                    {"Queue", "Path = " + Path("queue") + "\n"},
                    {"Process", "RunDir = " + Path("run") + "\n"},
                    {"Relay", "Port = " + std::to_string(relay.Port()) + "\n"},
                    {"Log", "Target = syslog\n"}};
        list = {"objectClass: qvlist",
                "mail: garden@lists.example.org",
                "mode: 0",
                "frequency: daily",
                "DigestDeliverTime: 06:30",
                "welcometxtpath: " + Path("texts/welcome.txt"),
                "listmember: Immediate;anna@example.com"};
        owner =
            "dn: mail=garden-owner@lists.example.org\nobjectClass: qvlistowner\n"
            "mail: garden-owner@lists.example.org\nlistowner: boss@example.org\n";
        more.clear();
        SaveSite();
    }
    void SaveSite()
    {
        std::string text;
        for (const auto& [section, keys] : settings)
            text.append("[").append(section).append("]\n").append(keys);
        Configure(text);
        std::string ldif = "dn: mail=garden@lists.example.org\n";
        for (const std::string& line : list)
            ldif += line + "\n";
        Write("conf/directory.ldif", ldif + "\n" + owner + "\n" + more);
    }
    void MakeFolder(const std::string& name, mode_t mode)
    {
        std::filesystem::create_directories(Path(name));
        (void)chmod(Path(name).c_str(), mode);
    }
    void Sql(const std::string& file, const std::string& command)
    {
        EXPECT_EQ(RunProgram({"/usr/bin/sqlite3", Path(file), command}), 0);
    }
    // The line of the list's entry that begins so.
    std::string& Attribute(const std::string& begin)
    {
        return *std::find_if(list.begin(), list.end(),
                             [&](const std::string& line) { return line.starts_with(begin); });
    }
    int Dlctl(const std::vector<std::string>& arguments)
    {
        return RunDlctl(Path("conf"), arguments, &output);
    }

    ScriptedRelay relay;
    std::map<std::string, std::string> settings;  // the lines of each section
    std::vector<std::string> list;                // the lines of its entry
    std::string owner;
    std::string more;  // entries
    std::string output;
};

TEST_F(Check, EachFaultIsNamedWithItsMend)
{
    using Harm = std::function<void()>;
    const auto replace = [this](const char* section, const std::string& lines) -> Harm {
        return [=, this] { settings[section] = lines; };
    };
    const std::string data = "data/" + std::string(kGarden);
    struct Row {
        std::string name;
        Harm harm;
        int status;
        std::string what, mend;
        bool fixable = false;
    };
    std::vector<Row> rows = {
        {"data folder missing", [&] { std::filesystem::remove_all(Path("data")); }, 2,
         "the data folder " + Path("data") + " is missing", "dlctl check --fix", true},
        {"data folder open", [&] { MakeFolder("data", 0777); }, 1,
         "has mode 0777, others can look into it", "chmod 0750", true},
        {"queue folder open", [&] { MakeFolder("queue", 0755); }, 1, "has mode 0755", "chmod 0700",
         true},
        {"a file for the queue folder",
         [&] {
             std::filesystem::remove_all(Path("queue"));
             Write("queue", "x");
         },
         2, "is no folder", "move the file away"},
        {"queue damaged", [&] { Write("queue/index.db", std::string(8192, '?')); }, 2,
         "the index is damaged", "bring index.db back from the backup"},
        {"queue of a newer program",
         [&] { Sql("queue/index.db", "CREATE TABLE a (b); PRAGMA user_version=9"); }, 2,
         "was written by a newer version", "install the newer version again"},
        {"messages without index", [&] { Write("queue/msg/00000001.msg", "x"); }, 2,
         "has message files and no index", "put index.db back"},
        {"log folder missing", replace("Log", "Target = file\nFile = " + Path("log/dl.log") + "\n"),
         2, "the log's folder " + Path("log") + " is missing", "dlctl check --fix", true},
        {"run folder missing", [&] { std::filesystem::remove_all(Path("run")); }, 1,
         "the run folder", "dlctl check --fix", true},
        // A free port may be taken by another test before it is asked; nobody serves port 1.
        {"relay away", replace("Relay", "Port = 1\n"), 2, "cannot be used: Connection refused",
         "correct Host and Port"},
        {"directory file broken", [&] { more = "nonsense\n"; }, 2, "directory.ldif",
         "write a sound LDIF file"},
        {"directory server away", replace("Ldap", "HostName = 127.0.0.1\nPort = 1\n"), 2,
         "Can't contact LDAP server", "start the LDAP server"},
        {"list without an address", [&] { list.erase(list.begin() + 1); }, 2,
         "has no mail attribute", "add mail with the list's address"},
        {"list twice",
         [&] { more = "dn: cn=again\nobjectClass: qvlist\nmail: Garden@lists.example.org\n"; }, 2,
         "several entries are the list Garden@lists.example.org", "remove the others: cn=again"},
        {"no owner alias", [&] { owner.clear(); }, 1,
         "has no owner alias garden-owner@lists.example.org", "add an entry of class qvlistowner"},
        {"alias without owner", [&] { owner.erase(owner.find("listowner:")); }, 2, "names no owner",
         "add the attribute listowner"},
        {"owner is no address",
         [&] { owner.replace(owner.find("listowner:"), 17, "listowner: nobody"); }, 1,
         "is no mail address", "correct listowner"},
        {"text file missing", [&] { std::filesystem::remove(Path("texts/welcome.txt")); }, 1,
         "welcometxtpath of the list garden@lists.example.org cannot be read", "write the file"},
        {"digest folder missing", [&] { std::filesystem::remove_all(Path(data + "/digest")); }, 2,
         "/digest is missing", "dlctl check --fix", true},
        {"archive open", [&] { MakeFolder(data + "/archive", 0777); }, 1, "/archive has mode 0777",
         "chmod 0755", true},
        {"archive of an older format leaves a posting out",
         [&] { Sql(data + "/archive/index.db", ".read " + DataPath("archive/format1.sql")); }, 1,
         "leaves out 1 posting(s) that cannot be read: " + Path(data) + "/archive/00000003.msg",
         "dlctl archive unreadable --retry garden@lists.example.org"},
        {"archive of a newer program",
         [&] { Sql(data + "/archive/index.db", "CREATE TABLE a (b); PRAGMA user_version=9"); }, 2,
         "was written by a newer version of this program (format 9",
         "install the newer version again"},
        {"archive damaged", [&] { Write(data + "/archive/index.db", std::string(8192, '?')); }, 2,
         "index.db is damaged", "dlctl archive rebuild garden@lists.example.org"},
        {"digest file without a moment", [&] { Write(data + "/digest/digest.dt", "soon"); }, 1,
         "holds no moment", "remove the file"},
        {"digest due beyond its schedule",
         [&] { Write(data + "/digest/digest.dt", "99999999999999999999"); }, 1,
         "digest.dt holds a moment farther off than its schedule", "start the service"},
        {"archive index due beyond its schedule", [&] { Write("data/index.dt", "4000000000"); }, 1,
         "index.dt holds a moment farther off than its schedule", "start the service"},
    };
    for (const auto& row : ReadTable("tables/check.txt", "faults")) {
        const auto harm = [=, this] {
            if (row.at(1) != "entry")
                settings[row.at(1)] = (row.at(2) == "+" ? settings[row.at(1)] : "") + row.at(3);
            else if (row.at(2) == "+")
                list.push_back(row.at(3));
            else
                Attribute(row.at(3).substr(0, row.at(3).find(' '))) = row.at(3);
        };
        rows.push_back(
            {row.at(0), harm, std::stoi(row.at(4)), row.at(5), row.at(6), row.at(7) == "yes"});
    }
    int mended = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        MakeSite();
        ASSERT_EQ(Dlctl({"check"}), 0) << output;
        ASSERT_EQ(output, "OK: 1 list(s), 0 critical, 0 warning(s), 0 unknown, 0 mended\n");
        row.harm();
        SaveSite();
        EXPECT_EQ(Dlctl({"check"}), row.status) << output;
        const std::size_t found = output.find(row.what);
        ASSERT_NE(found, std::string::npos) << output;
        const std::string line = output.substr(found, output.find('\n', found) - found);
        EXPECT_NE(line.find(std::string("; mend: ")), std::string::npos) << line;
        EXPECT_NE(line.find(row.mend), std::string::npos) << line;
        EXPECT_TRUE(output.starts_with(row.status == 2 ? "CRITICAL: " : "WARNING: ")) << output;
        if (!row.fixable)
            continue;
        ++mended;
        EXPECT_EQ(Dlctl({"check", "--fix"}), 0) << output;
        EXPECT_NE(output.find("MENDED: "), std::string::npos) << output;
        EXPECT_EQ(Dlctl({"check"}), 0) << output;
    }
    EXPECT_GE(mended, 8);
}

TEST_F(Check, PostingsThatCannotBeReadAreShownAndReadAgain)
{
    const std::string archive = "data/" + std::string(kGarden) + "/archive";
    MakeSite();
    Sql(archive + "/index.db", ".read " + DataPath("archive/format1.sql"));
    const auto write = [&](const char* name, const char* id) {
        Write(archive + "/" + name,
              "Message-ID: <" + std::string(id) + ">\r\nFrom: a@example.com\r\n\r\nx\r\n");
    };
    write("00000001.msg", "m1@example.com");
    write("00000002.msg", "m2@example.com");
    Write(archive + "/00000003.msg", "");
    Write(archive + "/00000005.msg", "Subject: x\r\nContent-Type: message/rfc822\r\n");
    Sql(archive + "/index.db", "INSERT INTO incoming (id, stamp) VALUES (5, 1)");
    EXPECT_EQ(Dlctl({"archive", "unreadable", kGarden}), 0);
    EXPECT_NE(output.find("00000003  -                     not noted"), std::string::npos)
        << output;
    EXPECT_EQ(Dlctl({"archive", "unreadable", kGarden, "--retry"}), 1);
    EXPECT_EQ(Dlctl({"archive", "unreadable", kGarden, "--json"}), 0);
    const auto seen = nlohmann::json::parse(output);
    ASSERT_EQ(seen.size(), 3U) << output;
    EXPECT_EQ(seen[0].at("id"), "00000003");
    EXPECT_EQ(seen[0].at("file"), Path(archive + "/00000003.msg"));
    EXPECT_EQ(seen[0].at("cause"), "it is empty");
    EXPECT_EQ(seen[0].at("since").get<std::string>().size(), 20U);
    EXPECT_EQ(seen[1].at("cause"), "it cannot be opened: No such file or directory");
    EXPECT_EQ(seen[1].at("in_part"), false);
    EXPECT_EQ(seen[2].at("cause"), "attachment 1-message.txt cannot be read");
    EXPECT_EQ(seen[2].at("in_part"), true);
    EXPECT_EQ(Dlctl({"check"}), 1);
    const std::string in_archive = Path(archive) + "/0000000";
    for (const std::string& part :
         {"leaves out 2 posting(s) that cannot be read: " + in_archive + "3.msg (it is empty), " +
              in_archive + "4.msg (it cannot be opened: No such file or directory); ",
          "shows in part 1 posting(s) that cannot be read whole: " + in_archive +
              "5.msg (attachment 1-message.txt cannot be read); "})
        EXPECT_NE(output.find(part), std::string::npos) << output;

    write("00000003.msg", "m3@example.com");
    write("00000005.msg", "m5@example.com");
    EXPECT_EQ(Dlctl({"archive", "remove", kGarden, "00000004"}), 0);
    EXPECT_NE(output.find("index.db.format-1 may still hold its words"), std::string::npos);
    EXPECT_EQ(Dlctl({"archive", "unreadable", kGarden, "--retry", "--json"}), 0);
    EXPECT_EQ(output, "[]\n");
    EXPECT_EQ(Dlctl({"check"}), 0) << output;

    Sql(archive + "/index.db",
        "WITH RECURSIVE n(i) AS (SELECT 17 UNION ALL SELECT i + 1 FROM n WHERE i < 24)"
        " INSERT INTO incoming (id, stamp, failed, cause) SELECT i, 1, 1, 'c' FROM n");
    EXPECT_EQ(Dlctl({"check"}), 1);
    EXPECT_NE(output.find("leaves out 8 posting(s)"), std::string::npos) << output;
    EXPECT_NE(output.find("/00000015.msg (c) and 3 more; "), std::string::npos) << output;
}

TEST_F(Check, JsonHasTheSameFindings)
{
    MakeSite();
    EXPECT_EQ(Dlctl({"check", "--min-free", "99999999", "--json"}), 2);
    const auto seen = nlohmann::json::parse(output);
    EXPECT_EQ(seen.at("status"), "critical");
    ASSERT_EQ(seen.at("findings").size(), 2U);
    const auto& first = seen.at("findings")[0];
    EXPECT_EQ(first.at("severity"), "critical");
    EXPECT_NE(first.at("finding").get<std::string>().find("MB free"), std::string::npos);
    EXPECT_EQ(first.at("mend"), "make room, or move the folder to a larger disk");
    EXPECT_EQ(first.at("fixed"), false);
}

TEST_F(Check, WithoutAConfigurationNothingElseIsLookedAt)
{
    EXPECT_EQ(Dlctl({"check"}), 2);
    EXPECT_NE(output.find("conf/qvms.conf is missing; mend: write it"), std::string::npos);
}

TEST_F(Check, FaultsOfAServerAreToldApart)
{
    DL_NEED_SLAPD();
    std::string lists =
        "dn: dc=lists,dc=example,dc=org\nobjectClass: dcObject\n"
        "objectClass: organization\ndc: lists\no: Lists\n\n";
    for (int i = 0; i < 600; ++i) {
        const std::string mail = "l" + std::to_string(i) + "@lists.example.org";
        lists += "dn: mail=" + mail +
                 ",dc=lists,dc=example,dc=org\nobjectClass: qvlist\nmail: " + mail + "\n\n";
    }
    Slapd server(Path("slapd"), lists);
    ASSERT_TRUE(server.Up()) << server.Reason();
    const std::string host = "HostName = 127.0.0.1\nPort = " + std::to_string(server.Port()) + "\n";
    const std::string name = std::string("Username = ") + Slapd::kServiceDn + "\n";
    const std::string password = std::string("Password = ") + Slapd::kServicePassword + "\n";
    const std::string keys = "[DlManager]\nDbPath = " + Path("data") +
                             "\n[Queue]\nPath = " + Path("queue") + "\n[Ldap]\n" + host;
    const struct {
        const char* what;
        std::string ldap;
        const char* finding;
        const char* mend;
    } rows[] = {
        {"wrong password", name + "Password = wrong\n", "the directory refuses the service's name",
         "correct Username and Password"},
        {"size limit", "", "size limit exceeded", "lift the size limit"},
        {"wrong base", name + password + "BaseDN = dc=elsewhere\n", "cannot be read",
         "correct BaseDN"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Configure(keys + row.ldap);
        EXPECT_EQ(Dlctl({"check", "--no-relay"}), 2);
        EXPECT_NE(LowerCase(output).find(LowerCase(row.finding)), std::string::npos) << output;
        EXPECT_NE(output.find(row.mend), std::string::npos) << output;
    }
    Configure(keys + name + password);
    (void)Dlctl({"check", "--no-relay"});
    EXPECT_TRUE(output.starts_with("CRITICAL: 600 list(s)")) << output.substr(0, 300);
    EXPECT_EQ(output.find("schema"), std::string::npos);
    ldapClient client;
    std::vector<std::string> unknown;
    ASSERT_EQ(client.ldapClientConnect("127.0.0.1", server.Port()), 0);
    EXPECT_TRUE(client.FindUnknownAttributes({"listmember", "x-nonsense", "MAIL"}, &unknown));
    EXPECT_EQ(unknown, std::vector<std::string>{"x-nonsense"});
}

}  // namespace
}  // namespace dl::testing
