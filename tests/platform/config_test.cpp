#include "platform/config/config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

std::string Get(const std::string& section, const std::string& key, std::size_t size = 4096)
{
    return GetPrivateProfileString(section, key, "fallback", size, kMainConfig);
}

bool Put(const std::string& section, const std::string& key, const std::string& value)
{
    return WritePrivateProfileString(section, key, value, kMainConfig);
}

class Config : public Fixture
{
 protected:
    Config()
    {
        SetConfigReporter([this](const std::string& text) { reports.push_back(text); });
    }
    ~Config() override { SetConfigReporter(nullptr); }

    std::string Text() { return ReadFile(Path("conf/qvms.conf")); }

    std::vector<std::string> reports;
};

// Files lie in tests/data/config.txt, each with what "Mail"/"Host" is.
TEST_F(Config, ReadsWhatALineSays)
{
    for (const DataBlock& row : ReadBlocks("config.txt")) {
        Configure(row.in);
        EXPECT_EQ(Get("Mail", "Host") + "\n", row.want) << row.name;
    }
}

TEST_F(Config, CutsAtTheBufferSize)
{
    Configure("[A]\nk = " + std::string(100'000, 'x') + "\n");
    EXPECT_EQ(Get("a", "K", 200'000).size(), 100'000U);
    EXPECT_EQ(Get("A", "k", 32).size(), 31U);
    EXPECT_EQ(Get("A", "k", 1), "");
    EXPECT_EQ(Get("A", "k", 0), "");
    EXPECT_EQ(Get("A", "none", 5), "fall");
}

TEST_F(Config, ReadsNumbers)
{
    for (const auto& row : ReadTable("tables/platform.txt", "numbers")) {
        SCOPED_TRACE(row.at(0));
        Configure("[A]\nk = " + row.at(0) + "\n");
        EXPECT_EQ(GetPrivateProfileInt("A", "k", 99, kMainConfig), std::stoi(row.at(1)));
    }
    EXPECT_EQ(GetPrivateProfileInt("A", "none", -99, kMainConfig), -99);
}

TEST_F(Config, ChangesOneLineAndLeavesEveryOtherByte)
{
    for (const auto& row : ReadTable("tables/platform.txt", "changed files")) {
        SCOPED_TRACE(row.at(0));
        Configure(row.at(1));
        EXPECT_TRUE(Put("Mail", "Host", "new"));
        EXPECT_EQ(Text(), row.at(2));
        EXPECT_EQ(Get("mail", "host"), "new");
    }
}

TEST_F(Config, WritesNothingThatWouldReadDifferently)
{
    const std::string before = "[A]\nk = v\n";
    Configure(before);
    const std::string nul(1, '\0');
    const struct {
        std::string section, key, value;
    } rows[] = {
        {"A", "k", "a\nb"},   {"A", "k", "a\rb"}, {"A", "k", nul},       {"A", "k\n[B]", "v"},
        {"A]\n[B", "k", "v"}, {"A]", "k", "v"},   {"A", "k=l", "v"},     {"A", "#k", "v"},
        {"A", ";k", "v"},     {"A", "[k", "v"},   {"A", "", "v"},        {"", "k", "v"},
        {"A", " k", "v"},     {"A ", "k", "v"},   {"A", "k" + nul, "v"}, {"A" + nul, "k", "v"},
    };
    for (const auto& row : rows) {
        EXPECT_FALSE(Put(row.section, row.key, row.value)) << row.section << "/" << row.key;
        EXPECT_EQ(Text(), before);
    }
}

TEST_F(Config, KeepsTheFileWhenItCannotBeWritten)
{
    const std::string before = "[A]\nk = v\n";
    Configure(before);
    std::filesystem::create_directory(Path("conf/qvms.conf.part"));
    EXPECT_FALSE(Put("A", "k", "w"));
    std::filesystem::remove(Path("conf/qvms.conf.part"));
    std::filesystem::remove(Path("conf/qvms.conf.lock"));
    std::filesystem::create_directory(Path("conf/qvms.conf.lock"));
    EXPECT_FALSE(Put("A", "k", "w"));
    EXPECT_EQ(Text(), before);
    EXPECT_FALSE(WritePrivateProfileString("A", "k", "w", "no/such/folder.ini"));
    std::filesystem::create_symlink(Path("nowhere"), Path("conf/dangling.ini"));
    EXPECT_FALSE(WritePrivateProfileString("A", "k", "w", "dangling.ini"));
    std::filesystem::create_directory(Path("conf/folder.ini"));
    EXPECT_FALSE(WritePrivateProfileString("A", "k", "w", "folder.ini"));
}

TEST_F(Config, KeepsModeOwnerAndLink)
{
    const std::string target = Write("elsewhere/real.conf", "[A]\nk = v\n");
    std::filesystem::create_symlink(target, Path("conf/qvms.conf"));
    ASSERT_EQ(chmod(target.c_str(), 0604), 0);
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(chown(target.c_str(), 12345, 23456), 0);
    }
    ASSERT_TRUE(Put("A", "k", "w"));
    EXPECT_TRUE(std::filesystem::is_symlink(Path("conf/qvms.conf")));
    EXPECT_EQ(ReadFile(target), "[A]\nk = w\n");
    struct stat entry = {};
    ASSERT_EQ(stat(target.c_str(), &entry), 0);
    EXPECT_EQ(entry.st_mode & 07777, 0604U);
    EXPECT_EQ(entry.st_uid, root ? 12345 : geteuid());
    EXPECT_EQ(entry.st_gid, root ? 23456 : getegid());
}

TEST_F(Config, AChangeTakesEffectAtTheNextRead)
{
    EXPECT_EQ(Get("A", "k"), "fallback");  // no file
    for (int i = 0; i < 300; ++i) {        // of one size, within one step of the file times
        const std::string value = std::to_string(100 + i);
        Configure("[A]\nk = " + value + "\n");
        ASSERT_EQ(Get("A", "k"), value);
    }
    std::filesystem::remove(Path("conf/qvms.conf"));
    EXPECT_EQ(Get("A", "k"), "fallback");
    Write("other/qvms.conf", "[A]\nk = other\n");
    SetConfigFolder(Path("other"));
    EXPECT_EQ(Get("A", "k"), "other");
    EXPECT_TRUE(reports.empty());
}

TEST_F(Config, AParsedCopyIsUsedAgain)
{
    std::string text = "[A]\n";
    for (int i = 0; i < 20'000; ++i)
        text += "key" + std::to_string(i) + " = " + std::to_string(i) + "\n";
    Configure(text);
    usleep(80'000);  // of a younger file no copy is trusted
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 20'000; ++i) {
        ASSERT_EQ(GetPrivateProfileInt("A", "key" + std::to_string(i), -1, kMainConfig), i);
        // A fifth of a second; parsed each time, it would be minutes.
        ASSERT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
    }
}

TEST_F(Config, TellsOncePerStateOfAFileThatCannotBeRead)
{
    const std::string path = Path("conf/qvms.conf");
    const struct {
        const char* name;
        std::function<void()> make;
        const char* want;  // in the report
    } rows[] = {
        {"folder", [&] { std::filesystem::create_directory(path); }, "Is a directory"},
        {"link to itself", [&] { std::filesystem::create_symlink(path, path); }, "symbolic links"},
        {"pipe", [&] { ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); }, "Invalid argument"},
        {"NUL", [&] { Configure(std::string("[A]\nb=\0\nk = v\n", 13)); }, "line 2: a NUL byte"},
        {"broken section", [&] { Configure("[A]\nk = v\n\n[B\n[C\n"); },
         "line 4: a section without"},

        {"one huge line", [&] { Configure(std::string((16U << 20) + 1, 'x')); }, "longer than"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        reports.clear();
        std::filesystem::remove(path);
        row.make();
        (void)Get("A", "k");
        (void)Get("A", "k");
        (void)GetPrivateProfileInt("A", "x", 1, kMainConfig);
        ASSERT_EQ(reports.size(), 1U);
        EXPECT_NE(reports[0].find(row.want), std::string::npos) << reports[0];
        EXPECT_NE(reports[0].find(path), std::string::npos) << reports[0];
        EXPECT_EQ(reports[0].find('\n'), std::string::npos);
    }
    std::filesystem::remove(path);
    Configure("[A]\nk = v\n[B\n");
    EXPECT_EQ(Get("A", "k"), "v");
    Configure("[A]\nk = w\n[BB\n");
    EXPECT_EQ(Get("A", "k"), "w");
    EXPECT_EQ(reports.size(), 3U);  // each state anew
}

TEST_F(Config, WhatWasReadStandsWhileTheFileCannotBeRead)
{
    const std::string path = Path("conf/qvms.conf");
    Configure("[A]\nk = v\n");
    ASSERT_EQ(Get("A", "k"), "v");
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_EQ(Get("A", "k"), "v");
    EXPECT_EQ(reports.size(), 1U);
    std::filesystem::remove(path);
    EXPECT_EQ(Get("A", "k"), "fallback");
}

TEST_F(Config, TheReporterMayReadTheConfiguration)
{
    SetConfigReporter(nullptr);
    Configure("[A]\nk = v\n[B\n");
    (void)Get("A", "k");
    SetConfigReporter([this](const std::string&) { reports.push_back(Get("A", "k")); });
    (void)Get("A", "k");  // set after the first read, it is told all the same
    EXPECT_EQ(reports, std::vector<std::string>{"v"});
}

TEST_F(Config, ManyWritersLoseNothing)
{
    Configure("# kept\n");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 25; ++i) {
                EXPECT_TRUE(Put("T" + std::to_string(t), "k" + std::to_string(i), "v"));
                (void)Get("T0", "k0");
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    for (int t = 0; t < 4; ++t)
        for (int i = 0; i < 25; ++i)
            EXPECT_EQ(Get("T" + std::to_string(t), "k" + std::to_string(i)), "v");
    EXPECT_EQ(Text().substr(0, 7), "# kept\n");
    EXPECT_FALSE(std::filesystem::exists(Path("conf/qvms.conf.part")));
}

TEST_F(Config, FindsItsFolder)
{
    EXPECT_EQ(ConfigPath("qvmta.ini"), Path("conf/qvmta.ini"));
    SetConfigFolder("");
    setenv("DLMANAGER_CONF", "/some/where", 1);
    EXPECT_EQ(ConfigPath("x.ini"), "/some/where/x.ini");
    setenv("DLMANAGER_CONF", "", 1);
    EXPECT_EQ(ConfigFolder(), "/etc/dlmanager");
    unsetenv("DLMANAGER_CONF");
    EXPECT_EQ(ConfigFolder(), "/etc/dlmanager");
}

}  // namespace
}  // namespace dl::testing
