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

// Files lie in tests/data/antispam_cfg.txt, each with what is saved of it, there without the CR.
// Hosts come newest first, so a file that is read and saved has them in reverse.
TEST_F(AntiSpamFile, TextsActionsAndHosts)
{
    for (const DataBlock& row : ReadBlocks("antispam_cfg.txt"))
        EXPECT_EQ(Saved(row.in), Crlf(row.want)) << row.name;
}

TEST_F(AntiSpamFile, SaysWhatItLoads)
{
    const AntiSpamConfig config(Path("nowhere"));
    const std::string path = Path("nowhere") + "/antispam.cfg";
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{
                               "5 Loading antispam configuration file: " + path, "5 Done"}));
    EXPECT_EQ(log.Lines()[0].module, "AntiSpam Config");
    EXPECT_EQ(*config.Path(), path);
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
