#include "schedule/due_file.h"
#include "platform/config/data_path.h"

#include <filesystem>

#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

class DueFiles : public Fixture
{
};

TEST_F(DueFiles, KeepsOneNumberWithoutLineEnd)
{
    const std::string path = Path("digest.dt");
    EXPECT_FALSE(DueFile(path).IsOpen());
    EXPECT_FALSE(std::filesystem::exists(path));
    ASSERT_TRUE(DueFile::Create(path, 1'100'000'000));
    EXPECT_EQ(ReadFile(path), "1100000000");
    {
        DueFile file(path);
        ASSERT_TRUE(file.IsOpen());
        EXPECT_EQ(file.Read(), 1'100'000'000);
        EXPECT_TRUE(file.Overwrite(1'100'086'400));
        EXPECT_EQ(file.Read(), 1'100'086'400);
        EXPECT_EQ(ReadFile(path), "1100086400");  // on disk while it is still open
        EXPECT_TRUE(file.Overwrite(1'200'000'000));
    }
    EXPECT_EQ(ReadFile(path), "1200000000");
    ASSERT_TRUE(DueFile::Create(path, 7));
    EXPECT_EQ(ReadFile(path), "7");
}

TEST_F(DueFiles, ReadsWhatStandsAtTheBeginning)
{
    for (const auto& row : ReadTable("tables/platform.txt", "due files")) {
        SCOPED_TRACE(row.at(0));
        const std::string path = Write("digest.dt", row.at(1));
        {
            DueFile file(path);
            ASSERT_TRUE(file.IsOpen());
            EXPECT_EQ(file.Read(), std::stol(row.at(2)));
            EXPECT_TRUE(file.Overwrite(1'200'000'000));
        }
        EXPECT_EQ(ReadFile(path), row.at(3));
    }
}

// An empty file would be due at once, and would never be seeded again.
TEST_F(DueFiles, AFullDiskIsToldAndLeavesNoNewFile)
{
    const std::string path = Path("full.dt");
    std::filesystem::create_symlink("/dev/full", path);
    {
        DueFile file(path);
        ASSERT_TRUE(file.IsOpen());
        EXPECT_FALSE(file.Overwrite(1));
    }
    EXPECT_FALSE(DueFile::Create(path, 1));
    EXPECT_FALSE(std::filesystem::is_symlink(path));
    EXPECT_FALSE(DueFile::Create(Path("missing/digest.dt"), 1));
    EXPECT_FALSE(DueFile::Create(Path(""), 1));
}

TEST_F(DueFiles, LieInTheDataFolder)
{
    const struct {
        const char *name, *text, *folder;
    } rows[] = {
        {"missing", "", ""},

        {"one slash goes", "[DlManager]\nDbPath = /data/\n", "/data"},

        {"root", "[DlManager]\nDbPath = /\n", ""},
        {"the other spelling", "[DLManager]\nDBPath = /data\n", "/data"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Configure(row.text);
        EXPECT_EQ(dl::DataPath(), row.folder);
        EXPECT_EQ(DigestDuePath("a@b.org"), std::string(row.folder) + "/a@b.org/digest/digest.dt");
    }
    const std::string long_path(5000, 'x');
    Configure("[DlManager]\nDbPath = " + long_path + "\n");
    EXPECT_EQ(dl::DataPath(), long_path.substr(0, 4094));
}

}  // namespace
}  // namespace dl::testing
