// Reading and writing section "BayesianFilter", and the building of command lines.

#include "antispam/bayesian_settings.h"

#include "antispam/command_line.h"
#include "platform/config/config.h"
#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

class BayesianSettings : public Fixture
{
 protected:
    BayesianSettings() { Configure(""); }
    // All fields, one after the other.
    static std::string Show(const BayesianFilterSettings& s)
    {
        return std::to_string(static_cast<int>(s.type)) + "," + s.library + "," + s.function + "," +
               s.command_line + "," + s.ham_codes + "," + s.spam_codes + "," +
               s.undetermined_codes + "," + s.error_codes + "," + std::to_string(s.time_out) + "," +
               s.add_ham + "," + s.add_spam + "," + s.remove_ham + "," + s.remove_spam + "," +
               (s.enable ? "on" : "off") +
               (s.trained_spam == TrainedAction::kMove ? ",move" : ",delete") +
               (s.trained_ham == TrainedAction::kMove ? ",move" : ",delete");
    }
};

TEST_F(BayesianSettings, Reading)
{
    const std::string kBoth =
        "DllLocation=/l\nFunctionName=f\nCommandLine=c\nReturnCodeForHam=1\n"
        "ReturnCodeForSpam=0\nReturnCodeForUndetermined=2\n"
        "ReturnCodeForError=3\nAddHamMessageCommand=ah\n";
    for (const auto& row : ReadTable("tables/spam.txt", "settings of the classifier")) {
        SCOPED_TRACE(row.at(0));
        std::string section = row.at(1);
        if (const std::size_t both = section.find("(both)"); both != std::string::npos)
            section.replace(both, 6, kBoth);
        Write("conf/qvmta.ini", "[BayesianFilter]\n" + section);
        EXPECT_EQ(Show(ReadBayesianSettings()), row.at(2));
    }
    EXPECT_EQ(BayesianFilterSettings().pid_file, "/var/run/bayesianlearn.pid");
}

TEST_F(BayesianSettings, AreWrittenBackAndTheRestStays)
{
    const std::string before =
        "; ours\n[Kestrune]\nReloadInterval = 5\n\n[BayesianFilter]\n# keep\n"
        "Type = EXE\nDllLocation = /l\nCommandLine = old\nOther = x\n";
    Write("conf/qvmta.ini", before);
    BayesianFilterSettings settings = ReadBayesianSettings();
    settings.command_line = "|/usr/bin/bogofilter -d %B";
    settings.time_out = 1;
    settings.enable = true;
    settings.trained_ham = TrainedAction::kDelete;
    ASSERT_TRUE(WriteBayesianSettings(settings));
    EXPECT_EQ(Show(ReadBayesianSettings()), Show(settings));
    const std::string after = ReadFile(Path("conf/qvmta.ini"));
    EXPECT_EQ(after.substr(0, before.find("CommandLine")),
              before.substr(0, before.find("CommandLine")));
    EXPECT_NE(after.find("Other = x\n"), std::string::npos);
    settings.type = BayesianType::kNone;
    ASSERT_TRUE(WriteBayesianSettings(settings));
    EXPECT_EQ(ReadBayesianSettings().type, BayesianType::kNone);
    EXPECT_NE(ReadFile(Path("conf/qvmta.ini")).find("|/usr/bin/bogofilter"), std::string::npos);
    settings.type = BayesianType::kExe;
    settings.spam_codes = "0\n[Other]";
    EXPECT_FALSE(WriteBayesianSettings(settings));
}

TEST(BayesianCommandLine, Building)
{
    const Placeholders all =
        ClassificationPlaceholders("an na@b", "list@c", "/m/.bayesian", "/q/1.msg", "/tmp/o");
    for (const auto& row : ReadTable("tables/spam.txt", "command lines")) {
        SCOPED_TRACE(row.at(0));
        const auto command = BuildCommandLine(row.at(1), all);
        std::string got = "none";
        if (command) {
            got = command->feeds_message ? "|" : "";
            for (const std::string& word : command->words)
                got += "[" + word + "]";
        }
        EXPECT_EQ(got, row.at(2));
    }
}

TEST(BayesianCommandLine, ValuesFromMail)
{
    for (const auto& row : ReadTable("tables/spam.txt", "values from mail")) {
        SCOPED_TRACE(row.at(0));
        const auto command =
            BuildCommandLine(row.at(1), ClassificationPlaceholders(row.at(2), "", "", "", ""));
        EXPECT_EQ(command ? command->text : "none", row.at(3));
    }
}

}  // namespace
}  // namespace dl::testing
