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
    const struct {
        const char* name;
        std::string section;
        const char* want;
    } rows[] = {
        {"nothing", "", "0,,,,,,,,15,,,,,off,delete,move"},
        {"no type: no other key is read", kBoth + "TimeOut=3\nEnable=YES\n",
         "0,,,,,,,,15,,,,,off,delete,move"},
        {"library, small letters", "Type=dll\n" + kBoth, "1,/l,f,,,,,,15,ah,,,,off,delete,move"},
        {"program", "Type=EXE\n" + kBoth, "2,,,c,1,0,2,3,15,ah,,,,off,delete,move"},

        {"words in any case",
         "Type=exe\nEnable=yes\nActionOnTrainedSpamMessage=MOVE\nActionOnTrainedHamMessage=DELETE\n"
         "TimeOut=2\n",
         "2,,,,,,,,2,,,,,on,move,delete"},
        {"words that are none keep the defaults",
         "Type=exe\nEnable=1\nActionOnTrainedSpamMessage=keep\nActionOnTrainedHamMessage=keep\n",
         "2,,,,,,,,15,,,,,off,delete,move"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Write("conf/qvmta.ini", "[BayesianFilter]\n" + row.section);
        EXPECT_EQ(Show(ReadBayesianSettings()), row.want);
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
    const struct {
        const char *name, *setting;
        const char* want;  // words in brackets, "|" before them; "-": cannot be built
    } rows[] = {
        {"all letters", "/bin/c %F %f %R %r %B %b %O %o %M",
         "[/bin/c][an na@b][an na@b][list@c][list@c][/m/.bayesian][/m/.bayesian][/tmp/o][/tmp/o]"
         "[/q/1.msg]"},

        {"blanks behind the bar and between words", "|  /bin/c   -d  %B ",
         "|[/bin/c][-d][/m/.bayesian]"},
        {"within a word", "/bin/c --db=%B:%R", "[/bin/c][--db=/m/.bayesian:list@c]"},
        {"other percents", "/bin/c %x 5% %% %%F %", "[/bin/c][%x][5%][%%][%an na@b][%]"},

        {"nothing", "", "-"},
        {"only a bar", "| ", "-"},
        {"a shell's characters", "/bin/c ;ls $(x) 'a", "[/bin/c][;ls][$(x)]['a]"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto command = BuildCommandLine(row.setting, all);
        std::string got = "-";
        if (command) {
            got = command->feeds_message ? "|" : "";
            for (const std::string& word : command->words)
                got += "[" + word + "]";
        }
        EXPECT_EQ(got, row.want);
    }
}

TEST(BayesianCommandLine, ValuesFromMail)
{
    const struct {
        const char *name, *setting;
        std::string sender;
        const char* want;  // the logged text; "-": cannot be built
    } rows[] = {
        {"words stay one", "/bin/c %F x", "\"a -x /etc/passwd\"@b",
         "/bin/c \"a -x /etc/passwd\"@b x"},
        {"no placeholder within", "/bin/c %F", "%M@b", "/bin/c %M@b"},
        {"blanks as they are set", "| /bin/c  -s %F ", "a@b", "| /bin/c  -s a@b "},
        {"an option", "/bin/c %F", "-o/etc/passwd@b", "-"},

        {"line break", "/bin/c %F", "a\nb@c", "-"},
        {"NUL", "/bin/c %F", std::string("a\0b@c", 5), "-"},
        {"not asked for", "/bin/c", "-o@b", "/bin/c"},

    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto command =
            BuildCommandLine(row.setting, ClassificationPlaceholders(row.sender, "", "", "", ""));
        EXPECT_EQ(command ? command->text : "-", row.want);
    }
}

}  // namespace
}  // namespace dl::testing
