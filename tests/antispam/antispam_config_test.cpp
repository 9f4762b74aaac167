#include "antispam/antispam_config.h"

#include <map>

#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

using Text = AntiSpamConfig::Text;

TEST(AntiSpamConfig, UnsetTextsHaveDefaults)
{
    const AntiSpamConfig config;
    std::string all;
    for (const Text field :
         {Text::kXBounceReason, Text::kBounceReason, Text::kSpamSubject, Text::kSystemSpamFolder,
          Text::kUserSpamFolder, Text::kUndeterminedFolder, Text::kSpamFolder, Text::kHamFolder,
          Text::kWhiteList, Text::kIPWhiteList}) {
        EXPECT_FALSE(config.IsSet(field));
        all += config.Get(field) + "|";
    }
    EXPECT_EQ(all,
              "Please stop sending spam message to me.|Please stop sending spam message to me.|"
              "***** SPAM MAIL REPORTED BY BAYESIAN FILTER *****|system-spam|my-spam|undetermined|"
              "spam|non-spam|||");
    EXPECT_EQ(config.KestruneAction(), kSpamIgnore);
    EXPECT_EQ(config.BayesianFilterAction(), kBayesDisable);
}

TEST(AntiSpamConfig, TextsLoseOneLineEnd)
{
    const std::pair<const char*, const char*> rows[] = {{"x", "x"},       {"x\n", "x"},
                                                        {"x\r\n", "x"},   {"x\r", "x"},
                                                        {"x\n\n", "x\n"}, {"x\r\r\n", "x\r"},
                                                        {"x\n\r", "x\n"}, {"\r\n", ""},
                                                        {"", ""},         {"x\r\ny\r\n", "x\r\ny"}};
    for (const auto& [value, stored] : rows) {
        SCOPED_TRACE(stored);
        AntiSpamConfig config;
        ASSERT_TRUE(config.Set(Text::kSpamFolder, value));
        EXPECT_EQ(config.Get(Text::kSpamFolder), stored);  // not the default, even when empty
        EXPECT_TRUE(config.IsSet(Text::kSpamFolder));
        ASSERT_TRUE(config.Add(Text::kWhiteList, "a"));
        ASSERT_TRUE(config.Add(Text::kWhiteList, value));
        EXPECT_EQ(config.Get(Text::kWhiteList), *stored ? "a," + std::string(stored) : "a");
    }
}

TEST(AntiSpamConfig, HostActions)
{
    AntiSpamConfig config;
    config.SetKestruneAction(kSpamDiscard);
    ASSERT_TRUE(config.Set(Text::kXBounceReason, "go away"));
    ASSERT_TRUE(config.SetHostAction("rbl.example.org", kSpamBounce, "listed"));
    ASSERT_TRUE(config.SetHostAction("files.example.org", kSpamFile, "junk"));
    ASSERT_TRUE(config.SetHostAction("bare-bounce.example.org", kSpamBounce, std::nullopt));
    ASSERT_TRUE(config.SetHostAction("bare-file.example.org", kSpamFile, std::nullopt));
    ASSERT_TRUE(config.SetHostAction("was-bounce.example.org", kSpamBounce, "old"));
    ASSERT_TRUE(config.SetHostAction("Was-Bounce.Example.Org", kSpamFile, std::nullopt));
    const struct {
        const char* host;
        bool has;
        int action;
        const char *folder, *reason;
    } rows[] = {
        {"RBL.Example.Org", true, kSpamBounce, "system-spam", "listed"},
        {"files.example.org", true, kSpamFile, "junk", "go away"},
        {"bare-bounce.example.org", true, kSpamBounce, "system-spam", "go away"},
        {"bare-file.example.org", true, kSpamFile, "system-spam", "go away"},
        {"was-bounce.example.org", true, kSpamFile, "system-spam", "go away"},

        {"unknown.example.org", false, kSpamDiscard, "system-spam", "go away"},

    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.host);
        EXPECT_EQ(config.HasHostAction(row.host), row.has);
        EXPECT_EQ(config.HostAction(row.host), row.action);
        EXPECT_EQ(config.HostFolder(row.host), row.folder);
        EXPECT_EQ(config.HostBounceReason(row.host), row.reason);
        EXPECT_EQ(config.RemoveHostAction(row.host), row.has);
        EXPECT_FALSE(config.HasHostAction(row.host));
    }
}

TEST(AntiSpamConfig, ActionsOfTheDirectory)
{
    const std::map<std::string, int> actions = {{"ignore", kSpamIgnore},
                                                {"discard", kSpamDiscard},
                                                {"bounce", kSpamBounce},
                                                {"file", kSpamFile}};
    for (const auto& row : ReadTable("tables/spam.txt", "actions of a list")) {
        SCOPED_TRACE(row.at(0));
        AntiSpamConfig config;
        config.SetKestruneAction(kSpamFile);
        ASSERT_TRUE(config.Set(Text::kXBounceReason, "before"));
        config.ApplySpamAction(row.at(0));
        EXPECT_EQ(config.KestruneAction(), actions.at(row.at(1)));
        EXPECT_EQ(config.Get(Text::kXBounceReason), row.at(2));
    }
    const std::string unset = AntiSpamConfig().Get(Text::kXBounceReason);
    for (const auto& row : ReadTable("tables/spam.txt", "actions for a blacklist")) {
        SCOPED_TRACE(row.at(0));
        AntiSpamConfig config;
        config.SetKestruneAction(kSpamFile);
        config.ApplyHostAction(row.at(0));
        EXPECT_EQ(config.HasHostAction("rbl"), row.at(1) == "true");
        EXPECT_EQ(config.HostAction("rbl"), actions.at(row.at(2)));
        EXPECT_EQ(config.HostBounceReason("rbl"), row.at(3) == "unset" ? unset : row.at(3));
    }
}

TEST(AntiSpamConfig, WhiteLists)
{
    EXPECT_FALSE(AntiSpamConfig().IsWhitelistedSender(""));
    EXPECT_FALSE(AntiSpamConfig().IsWhitelistedIP(""));
    for (const auto& row : ReadTable("white_lists.txt")) {
        const bool sender = row.at(0) == "sender";
        AntiSpamConfig config;
        ASSERT_TRUE(config.Set(sender ? Text::kWhiteList : Text::kIPWhiteList, row.at(2)));
        EXPECT_EQ(
            sender ? config.IsWhitelistedSender(row.at(3)) : config.IsWhitelistedIP(row.at(3)),
            row.at(4) == "yes")
            << row.at(1);
    }
}

TEST(AntiSpamConfig, AddressNumbers)
{
    for (const auto& row : ReadTable("tables/spam.txt", "numbers of addresses"))
        EXPECT_EQ(AddressNumber(row.at(0)), std::stoul(row.at(1), nullptr, 16)) << row.at(0);
}

}  // namespace
}  // namespace dl::testing
