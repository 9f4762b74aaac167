// Classification in both modes, the lock, the pid file, and the verdicts of the check.

#include "antispam/bayesian_filter.h"

#include <sys/stat.h>
#include <unistd.h>

#include "antispam/bayesian_check.h"
#include "antispam/spam_checker.h"
#include "platform/queue/queue.h"
#include "tests/antispam/mailbox_fixture.h"
#include "tests/support/child.h"
#include "tests/support/failing_queue.h"

namespace dl::testing
{
namespace
{

using Text = AntiSpamConfig::Text;

class BayesianFixture : public MailboxFixture
{
 protected:
    BayesianFixture() { own.pid_file = Path("learn.pid"); }

    // A program that exits with the number that the message begins with.
    BayesianFilterSettings Program()
    {
        const std::string path = Write("classify", "#!/bin/sh\nread code rest; exit $code\n");
        chmod(path.c_str(), 0700);
        own.type = BayesianType::kExe;
        own.command_line = "|" + path + " %F";
        own.ham_codes = "0,1";
        own.spam_codes = "1, 5";
        own.undetermined_codes = "2";
        own.error_codes = "3,255";
        return own;
    }
    BayesianFilterSettings Library(const std::string& library = DL_CLASSIFIER,
                                   const std::string& function = "classify")
    {
        own.type = BayesianType::kDll;
        own.library = library;
        own.function = function;
        return own;
    }
    int Classify(BayesianFilter& filter, const std::string& message)
    {
        return static_cast<int>(filter.Classify("a@b", "list@c", Path("mbx"),
                                                Write("0000000A.msg", message), Path("out")));
    }
    void PidFile(std::int32_t id)
    {
        Write("learn.pid", std::string_view(reinterpret_cast<const char*>(&id), sizeof id));
    }

    BayesianFilterSettings own;
};

TEST_F(BayesianFixture, ProgramsAreJudgedByTheirExitCode)
{
    const struct {
        const char* message;
        int want;
    } rows[] = {{"0", 0}, {"1", 0}, {"5", 1}, {"2", 2}, {"3", 3}, {"9", 0}};
    BayesianFilter filter(Program());
    EXPECT_TRUE(filter.Usable());
    for (const auto& row : rows)
        EXPECT_EQ(Classify(filter, row.message), row.want) << row.message;
    BayesianFilterSettings broken = Program();
    broken.spam_codes = "0";
    broken.ham_codes = "";
    broken.command_line = "|/no/such/program";
    BayesianFilter missing(broken);
    EXPECT_EQ(Classify(missing, "0"), 3) << "255 is in the list of errors";
    broken.command_line = "";
    BayesianFilter unset(broken);
    EXPECT_EQ(Classify(unset, "0"), 3);
    broken.command_line = "/bin/true -%M %F";
    BayesianFilter option(broken);
    EXPECT_EQ(static_cast<int>(option.Classify("-x@b", "", "", "", "")), 3);
    const std::string dies = Write("dies", "#!/bin/sh\nkill -SEGV $$\n");
    chmod(dies.c_str(), 0700);
    broken.command_line = dies;
    BayesianFilter crashing(broken);
    log.ExpectError("The program was ended by signal 11");
    EXPECT_EQ(Classify(crashing, "0"), 3) << "not spam, though 0 is";
    BayesianFilter none{BayesianFilterSettings{}};
    EXPECT_FALSE(none.Usable());
    EXPECT_EQ(Classify(none, "0"), 4);
}

TEST_F(BayesianFixture, CodesAreComparedAsNumbers)
{
    BayesianFilterSettings codes;
    const struct {
        const char* list;
        int code;
        bool in;
    } rows[] = {{"", 0, false},     {"0", 0, true},    {"1,2", 2, true},   {"01", 1, true},
                {"spam", 0, false}, {"1,,2", 2, true}, {"2 , 3 ", 3, true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.list) + " " + std::to_string(row.code));
        codes.spam_codes = row.list;
        EXPECT_EQ(ClassifyExitCode(codes, row.code) == Classification::kSpam, row.in);
    }
}

TEST_F(BayesianFixture, LibrariesAreCalled)
{
    BayesianFilter filter(Library());
    ASSERT_TRUE(filter.Usable());
    const struct {
        const char* message;
        int want;
    } rows[] = {{"0", 0}, {"1", 1}, {"2", 2}, {"3", 3}, {"4", 3}, {"-1", 3}};
    for (const auto& row : rows)
        EXPECT_EQ(Classify(filter, row.message), row.want) << row.message;
    EXPECT_EQ(ReadFile(Path("out")),
              "a@b|list@c|" + Path("mbx") + "/.bayesian|" + Path("0000000A.msg"));
    EXPECT_TRUE(log.Has(5, "Bayesian filter DLL return code: -1"));
}

TEST_F(BayesianFixture, ALibraryThatIsMissingIsTriedOnce)
{
    log.ExpectError("The classifier library " + Path("late.so") + " cannot be loaded");
    BayesianFilter filter(Library(Path("late.so")));
    EXPECT_FALSE(filter.Usable());
    std::filesystem::copy_file(DL_CLASSIFIER, Path("late.so"));
    EXPECT_EQ(Classify(filter, "1"), 1) << "it is there now";
    log.ExpectError("no.so cannot be loaded");
    BayesianFilter never(Library(Path("no.so")));
    EXPECT_EQ(Classify(never, "1"), 3);
    EXPECT_TRUE(never.Usable());
    log.ExpectError("has no function nothing");
    BayesianFilter wrong(Library(DL_CLASSIFIER, "nothing"));
    EXPECT_TRUE(wrong.Usable());
    EXPECT_EQ(Classify(wrong, "1"), 3);
}

TEST_F(BayesianFixture, TheLock)
{
    const std::int32_t gone = 0x3ffffffe;  // above every process id
    const struct {
        const char* name;
        bool taken;        // the lock file is there
        std::int32_t pid;  // in the pid file; 0: no file
        int time_out;
        bool want;
        int slept;  // seconds
    } rows[] = {
        {"free", false, 0, 1, true, 0},
        {"taken, no learner", true, 0, 1, true, 0},
        {"taken, the learner is gone", true, gone, 1, true, 0},
        {"taken, the learner runs", true, getpid(), 2, false, 120},

        {"no time at all", false, 0, 0, false, 0},

    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove(Path("mbx/bayesian.lock"));
        std::filesystem::remove(Path("learn.pid"));
        if (row.taken)
            Write("mbx/bayesian.lock", "");
        if (row.pid != 0)
            PidFile(row.pid);
        own.time_out = row.time_out;
        const BayesianFilter filter(own);
        clock.slept = {};
        EXPECT_EQ(filter.Lock(Path("mbx")), row.want);
        EXPECT_EQ(clock.slept, std::chrono::seconds(row.slept));
        if (row.want && !row.taken) {
            EXPECT_EQ(std::filesystem::status(Path("mbx/bayesian.lock")).permissions(),
                      std::filesystem::perms(0200));
        }
        filter.Unlock(Path("mbx"));
        EXPECT_FALSE(std::filesystem::exists(Path("mbx/bayesian.lock")));
    }
    Write("learn.pid", "12");
    EXPECT_FALSE(BayesianFilter(own).LearnerRuns()) << "half a number";
    EXPECT_TRUE(BayesianFilter(own).WritePidFile());
    EXPECT_TRUE(BayesianFilter(own).LearnerRuns());
    EXPECT_EQ(ReadFile(Path("learn.pid")).size(), 4U);
    own.pid_file = Path("no/where");
    EXPECT_FALSE(BayesianFilter(own).WritePidFile());
}

TEST_F(BayesianFixture, VerdictsOfTheCheck)
{
    FailingQueue queue(Path("queue"));
    const std::string mail = " x\r\nSubject: hi\r\n\r\nbody\r\n";
    const struct {
        const char* name;
        int action;
        const char *code, *sender;
        int want;
        const char* folder;  // that has the message now
    } rows[] = {
        {"disabled", kBayesDisable, "5", "a@b.c", 2, ""},
        {"white-listed", kBayesDiscard, "5", "x@friends.example", 10, ""},
        {"ham", kBayesDiscard, "0", "a@b.c", 0, ""},
        {"discard", kBayesDiscard, "5", "a@b.c", 4, ""},
        {"bounce", kBayesBounce, "5", "a@b.c", 3, ""},
        {"bounce to nobody", kBayesBounce, "5", "<>", 7, ""},
        {"subject", kBayesChangeSubject, "5", "a@b.c", 6, ""},
        {"header", kBayesAddHeader, "5", "a@b.c", 6, ""},
        {"file", kBayesFile, "5", "a@b.c", 5, "my-spam"},
        {"undetermined, file", kBayesFile, "2", "a@b.c", 5, "undetermined"},
        {"undetermined, discard", kBayesDiscard, "2", "a@b.c", 0, ""},

        {"error", kBayesDiscard, "3", "a@b.c", 7, ""},
    };
    AntiSpamConfig settings;
    (void)settings.Set(Text::kWhiteList, "*@friends.example");
    BayesianFilter filter(Program());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        settings.SetBayesianFilterAction(row.action);
        std::filesystem::remove_all(Path("mbx"));
        std::filesystem::create_directory(Path("mbx"));
        const BayesianMessage message{row.sender, "list@c.d", Path("mbx"),
                                      Write("0000000A.msg", row.code + mail), Path("out")};
        EXPECT_EQ(static_cast<int>(BayesianCheck(&filter, &settings, message)), row.want);
        EXPECT_FALSE(std::filesystem::exists(Path("mbx/bayesian.lock")));
        if (*row.folder) {
            EXPECT_EQ(Folder(row.folder).substr(0, 31), "flags 5, counters 1 1 1, next 1");
        }
        const std::string out = std::filesystem::exists(Path("out")) ? ReadFile(Path("out")) : "";
        EXPECT_EQ(out.find("Subject: ***** SPAM MAIL REPORTED BY") != std::string::npos,
                  row.action == kBayesChangeSubject);
        EXPECT_EQ(out.find("X-Spam-Status: YES\r\n\r\n") != std::string::npos,
                  row.action == kBayesAddHeader);
        std::filesystem::remove(Path("out"));
    }
    const BayesianMessage message{"a@b.c", "list@c.d", Path("mbx"),
                                  Write("0000000A.msg", "5" + mail), Path("out")};
    EXPECT_EQ(BayesianCheck(&filter, nullptr, message), BayesianVerdict::kNoSettings);
    settings.SetBayesianFilterAction(kBayesDiscard);
    BayesianFilter none{BayesianFilterSettings{}};
    EXPECT_EQ(BayesianCheck(&none, &settings, message), BayesianVerdict::kNotUsable);
    Write("mbx/bayesian.lock", "");
    PidFile(getpid());
    EXPECT_EQ(BayesianCheck(&filter, &settings, message), BayesianVerdict::kNotLocked);
    settings.SetBayesianFilterAction(kBayesFile);
    std::filesystem::remove(Path("learn.pid"));
    std::filesystem::remove(Path("template/msgenv.db"));
    log.ExpectError("FileMessage - Catch error: -3");
    EXPECT_EQ(BayesianCheck(&filter, &settings, message), BayesianVerdict::kFailed);
    const char* before = getenv("TMPDIR");
    const std::string tmp = before ? before : "";
    setenv("TMPDIR", Path("no-such-folder").c_str(), 1);
    EXPECT_EQ(BayesianCheck(&filter, &settings, message), BayesianVerdict::kFailed);
    before ? setenv("TMPDIR", tmp.c_str(), 1) : unsetenv("TMPDIR");
}

TEST_F(BayesianFixture, TheCheckerReadsItsSettings)
{
    Gateway("[BayesianFilter]\nType = EXE\nAddHamMessageCommand = /bin/cp %M " + Path("copied") +
            "\n");
    SpamChecker checker;
    EXPECT_EQ(checker.CheckBayesian({}), BayesianVerdict::kNoSettings);
    EXPECT_FALSE(checker.AddHam(Path("mbx"), Write("m", "text")));
    AntiSpamConfig settings;
    checker.SetBayesianSettings(&settings);
    EXPECT_EQ(checker.CheckBayesian({}), BayesianVerdict::kDisabled);
    EXPECT_TRUE(checker.AddHam(Path("mbx"), Path("m")));
    EXPECT_EQ(ReadFile(Path("copied")), "text");
    EXPECT_FALSE(checker.RemoveSpam(Path("mbx"), Path("m"))) << "no command is set";
}

}  // namespace
}  // namespace dl::testing
