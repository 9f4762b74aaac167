// Reading and writing "antispam.cfg".

#include <filesystem>

#include "antispam/antispam_config.h"
#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

using Text = AntiSpamConfig::Text;

constexpr char kNothing[] = "KestruneAction=ignore\r\nBayesianFilterAction=disable\r\n";

class AntiSpamFile : public Fixture
{
 protected:
    // What is saved of what `content` says.
    std::string Saved(std::string_view content)
    {
        const std::string path = Write("antispam.cfg", content);
        const AntiSpamConfig config(Path(""));
        std::filesystem::remove(path);
        EXPECT_TRUE(config.Save());
        return ReadFile(path);
    }
};

TEST_F(AntiSpamFile, TextsAndActions)
{
    const std::string kestrune = "KestruneAction=";
    const std::string bayes = "\r\nBayesianFilterAction=";
    const struct {
        const char* name;
        const char* content;
        std::string saved;
    } rows[] = {
        {"empty file", "", kNothing},
        {"CRLF", "SpamFolder=x\r\n", std::string(kNothing) + "SpamFolder=x\r\n"},
        {"LF", "SpamFolder=x\n", std::string(kNothing) + "SpamFolder=x\r\n"},
        {"no line end", "SpamFolder=x", std::string(kNothing) + "SpamFolder=x\r\n"},
        {"two CR", "SpamFolder=x\r\r\n", std::string(kNothing) + "SpamFolder=x\r\n"},
        {"set to nothing", "SpamFolder=\r\n", std::string(kNothing) + "SpamFolder=\r\n"},
        {"the last one holds", "HamFolder=x\nHamFolder=y\n",
         std::string(kNothing) + "HamFolder=y\r\n"},
        {"comments and lines without a sign", "#SpamFolder=x\n;HamFolder=y\nWhiteList\n\n\r\n",
         kNothing},
        {"a blank before the comment", " #SpamFolder=x\n", kNothing},
        {"any case", "spamFOLDER=x\n", std::string(kNothing) + "SpamFolder=x\r\n"},
        {"value with a sign", "SpamSubject=a=b\n", std::string(kNothing) + "SpamSubject=a=b\r\n"},
        {"blanks are part of the value", "SpamSubject= a \n",
         std::string(kNothing) + "SpamSubject= a \r\n"},
        {"blanks before the key", " SpamSubject=a\n", kNothing},
        {"unknown key", "Colour=red\n=blue\n", kNothing},
        {"a key that begins with a name", "SpamFoldersOfMine=x\n",
         std::string(kNothing) + "SpamFolder=x\r\n"},
        {"a host that begins with a name", "whitelist.example.org-action=discard\n",
         std::string(kNothing) + "WhiteList=discard\r\n"},
        {"each text under its own name, in the order of the file's form",
         "IPWhiteList=1\nWhiteList=2\nHamFolder=3\nSpamFolder=4\nUndeterminedFolder=5\n"
         "UserSpamFolder=6\nSystemSpamFolder=7\nSpamSubject=8\nXBounceReason=9\nBounceReason=10\n",
         std::string(kNothing) +
             "BounceReason=10\r\nXBounceReason=9\r\nSpamSubject=8\r\nSystemSpamFolder=7\r\n"
             "UserSpamFolder=6\r\nUndeterminedFolder=5\r\nSpamFolder=4\r\nHamFolder=3\r\n"
             "WhiteList=2\r\nIPWhiteList=1\r\n"},
        {"ignore, disable", "KestruneAction=ignore\nBayesianFilterAction=disable\n", kNothing},
        {"discard, discard", "KestruneAction=discard\nBayesianFilterAction=discard\n",
         kestrune + "discard" + bayes + "discard\r\n"},
        {"file, bounce", "KestruneAction=file\nBayesianFilterAction=bounce\n",
         kestrune + "file" + bayes + "bounce\r\n"},
        {"bounce, changesubject", "KestruneAction=bounce\nBayesianFilterAction=changesubject\n",
         kestrune + "bounce" + bayes + "changesubject\r\n"},
        {"by the beginning", "KestruneAction=filed\nBayesianFilterAction=X-Spam-Status: YES\n",
         kestrune + "file" + bayes + "X-Spam-Status\r\n"},
        {"any case", "kestruneactions=FILE\nbayesianfilteraction=FILE\n",
         kestrune + "file" + bayes + "file\r\n"},
        {"what is no action changes nothing",
         "KestruneAction=file\nKestruneAction=weird\nKestruneAction= discard\nKestruneAction=\n"
         "BayesianFilterAction=file\nBayesianFilterAction=X-Spam\n",
         kestrune + "file" + bayes + "file\r\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Saved(row.content), row.saved);
    }
}

// Newest first, so a file that is read and saved has its hosts in reverse.
TEST_F(AntiSpamFile, HostLines)
{
    const struct {
        const char* name;
        const char* content;
        const char* saved;
    } rows[] = {
        {"all actions",
         "a-action=ignore\nb-action=discard\nc-action=file,box\nd-action=bounce,go\n",
         "d-action=bounce,go\r\nc-action=file,box\r\nb-action=discard\r\na-action=ignore\r\n"},
        {"no argument", "a-action=file\nb-action=bounce\n", "b-action=bounce\r\na-action=file\r\n"},
        {"empty argument", "a-action=bounce,\r\n", "a-action=bounce,\r\n"},
        {"argument with commas and signs", "a-action=bounce,go, a=b,c\r\n",
         "a-action=bounce,go, a=b,c\r\n"},
        {"argument where none belongs", "a-action=discard,box\n", "a-action=discard\r\n"},
        {"by the beginning, any case", "a-action=DISCARDED\n", "a-action=discard\r\n"},
        {"no action takes the one before", "bar-action=discard\r\nfoo-action=weird\r\n",
         "foo-action=discard\r\nbar-action=discard\r\n"},
        {"over other lines, and again, without the argument",
         "a-action=bounce,go\n#x\nSpamFolder\nb-action=weird,box\nc-action=\n",
         "c-action=bounce\r\nb-action=bounce\r\na-action=bounce,go\r\n"},
        {"no action and none before", "a-action=weird\n", "a-action=ignore\r\n"},
        {"the same host again", "a-action=bounce,go\nA-action=file\n", "a-action=file\r\n"},
        {"cut at the first", "a-action-action=discard\n", "a-action=discard\r\n"},
        {"with more behind", "a-actions=discard\n", "a-action=discard\r\n"},
        {"no host", "-action=discard\n", "-action=discard\r\n"},
        {"in the value only", "a=b-action\n", "a-action=ignore\r\n"},
        {"any case does not do here", "a-Action=discard\n", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Saved(row.content), std::string(kNothing) + row.saved);
    }
}

TEST_F(AntiSpamFile, SaysWhatItLoads)
{
    const AntiSpamConfig config(Path("nowhere"));
    const auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].text,
              "Loading antispam configuration file: " + Path("nowhere") + "/antispam.cfg");
    EXPECT_EQ(lines[1].text, "Done");
    for (const auto& line : lines) {
        EXPECT_EQ(line.level, 5);
        EXPECT_EQ(line.module, "AntiSpam Config");
    }
    EXPECT_EQ(*config.Path(), Path("nowhere") + "/antispam.cfg");
    EXPECT_EQ(config.Get(Text::kSpamFolder), "spam");
    EXPECT_FALSE(config.Save());  // no such folder
}

TEST_F(AntiSpamFile, FaultsAreTold)
{
    AntiSpamConfig config;
    ASSERT_TRUE(config.Set(Text::kSpamFolder, "before"));
    config.SetKestruneAction(kSpamBounce);
    EXPECT_FALSE(config.Load(Path("missing.cfg")));
    EXPECT_FALSE(config.Load(Path("")));  // a folder can be opened, but not be read
    EXPECT_EQ(config.Get(Text::kSpamFolder), "before");
    EXPECT_EQ(config.KestruneAction(), kSpamBounce);
    EXPECT_FALSE(config.Save()) << "it has no path";

    AntiSpamConfig full(Path(""));
    std::filesystem::create_symlink("/dev/full", Path("antispam.cfg"));
    EXPECT_FALSE(full.Save());
    ASSERT_TRUE(full.Set(Text::kSpamSubject, std::string(100'000, 'x')));
    EXPECT_FALSE(full.Save());
}

TEST_F(AntiSpamFile, WhatIsSavedIsLoadedAgain)
{
    const std::string long_text(100'000, 'x');
    AntiSpamConfig config(Path(""));
    config.SetKestruneAction(kSpamFile);
    config.SetBayesianFilterAction(kBayesAddHeader);
    ASSERT_TRUE(config.Set(Text::kWhiteList, long_text));
    ASSERT_TRUE(config.Set(Text::kHamFolder, "Posteingang/gro\xC3\x9F"));
    ASSERT_TRUE(config.SetHostAction("a.example.org", kSpamBounce, long_text));
    ASSERT_TRUE(config.SetHostAction("b.example.org", kSpamIgnore, std::nullopt));
    ASSERT_TRUE(config.Save());
    const AntiSpamConfig again(Path(""));
    EXPECT_EQ(again.KestruneAction(), kSpamFile);
    EXPECT_EQ(again.BayesianFilterAction(), kBayesAddHeader);
    EXPECT_EQ(again.Get(Text::kWhiteList), long_text);
    EXPECT_EQ(again.Get(Text::kHamFolder), "Posteingang/gro\xC3\x9F");
    EXPECT_FALSE(again.IsSet(Text::kSpamFolder));
    EXPECT_EQ(again.HostBounceReason("a.example.org"), long_text);
    EXPECT_EQ(again.HostAction("b.example.org"), kSpamIgnore);
}

// The setters take any number; the file knows words only.
TEST_F(AntiSpamFile, ActionsWithoutAWordAreSavedAsTheFirst)
{
    for (const int action : {-1, 4, 1'000'000}) {
        SCOPED_TRACE(action);
        AntiSpamConfig config(Path(""));
        config.SetKestruneAction(action);
        config.SetBayesianFilterAction(action == 4 ? 6 : action);
        ASSERT_TRUE(config.SetHostAction("a", action, "x"));
        EXPECT_EQ(config.KestruneAction(), action);
        ASSERT_TRUE(config.Save());
        EXPECT_EQ(ReadFile(Path("antispam.cfg")), std::string(kNothing) + "a-action=ignore\r\n");
    }
}

}  // namespace
}  // namespace dl::testing
