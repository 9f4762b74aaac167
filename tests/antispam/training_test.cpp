// Training with bogofilter, which really learns it, and what becomes of the folders.

#include "antispam/training.h"

#include "antispam/bayesian_check.h"
#include "tests/antispam/mailbox_fixture.h"
#include "tests/support/child.h"

namespace dl::testing
{
namespace
{

constexpr char kBogofilter[] = "/usr/bin/bogofilter";

class TrainingTest : public MailboxFixture
{
 protected:
    static BayesianFilterSettings Bogofilter()
    {
        BayesianFilterSettings settings;
        settings.type = BayesianType::kExe;
        const std::string program = std::string("|") + kBogofilter + " -d %B";
        settings.command_line = program;
        settings.spam_codes = "0";
        settings.ham_codes = "1";
        settings.undetermined_codes = "2";
        settings.error_codes = "3,255";
        settings.add_ham = program + " -n";
        settings.add_spam = program + " -s";
        return settings;
    }
    // The `i`-th message of either kind: a few of the kind's words, and some of everybody's.
    static std::string Mail(bool spam, int i)
    {
        static const char* const kSpamWords[] = {"casino", "pills",  "lottery", "refund",
                                                 "crypto", "viagra", "winner",  "invest"};
        static const char* const kHamWords[] = {"roses", "compost",  "pruning", "seedlings",
                                                "frost", "tomatoes", "beehive", "orchard"};
        const char* const* words = spam ? kSpamWords : kHamWords;
        std::string text =
            "From: x@example.com\r\nSubject: " + std::string(words[i % 8]) + "\r\n\r\nhello and ";
        for (int k = 0; k < 4; ++k)
            text += std::string(words[(i + k * k) % 8]) + " with ";
        return text + "regards\r\n";
    }
    void FileInto(const std::string& folder, const std::string& message)
    {
        ASSERT_TRUE(FileMessage(Path("mbx"), Write("in.msg", message), folder));
    }

    AntiSpamConfig settings;
};

TEST_F(TrainingTest, ClassifiesWhatItWasTaught)
{
    if (!std::filesystem::exists(kBogofilter))
        GTEST_SKIP() << "bogofilter is not installed";
    BayesianFilter filter(Bogofilter());
    const auto classify = [&](const std::string& message) {
        return filter.Classify("a@b", "l@c", Path("mbx"), Write("in.msg", message), Path("out"));
    };
    EXPECT_EQ(classify(Mail(true, 1)), Classification::kError) << "it knows nothing yet";
    for (int i = 0; i < 20; ++i) {
        FileInto("spam", Mail(true, i));
        FileInto("non-spam", Mail(false, i));
    }
    ASSERT_TRUE(Train(filter, &settings, Path("mbx"), TrainingFolder::kSpam));
    ASSERT_TRUE(Train(filter, &settings, Path("mbx"), TrainingFolder::kHam));
    for (int i = 20; i < 30; ++i) {
        EXPECT_EQ(classify(Mail(true, i)), Classification::kSpam) << i;
        EXPECT_EQ(classify(Mail(false, i)), Classification::kHam) << i;
    }
    EXPECT_EQ(classify("Subject: Zwiebeln\r\n\r\nUnbekannte Woerter\r\n"),
              Classification::kUndetermined);
    EXPECT_EQ(Folder("spam"), "flags 5, counters 0 0 0, next 20; files") << "deleted";
    EXPECT_EQ(Folder("non-spam"), "flags 5, counters 0 0 0, next 20; files trained") << "moved";
    EXPECT_EQ(Folder("non-spam/trained").substr(0, 34), "flags 5, counters 20 20 20, next 2");
    EXPECT_EQ(ReadFile(Path("mbx/non-spam/trained/3")),
              std::string(kStoredLeadIn) + Mail(false, 3));
}

TEST_F(TrainingTest, CommandsAndLinesInTheirOrder)
{
    BayesianFilterSettings commands;
    commands.add_ham = "/bin/echo add ham %B %M";
    commands.add_spam = "/bin/echo add spam %B %M";
    commands.remove_ham = "/bin/echo remove ham %B %M";
    commands.remove_spam = "/bin/echo remove spam %B %M";
    commands.trained_spam = TrainedAction::kMove;
    commands.trained_ham = TrainedAction::kDelete;
    const BayesianFilter filter(commands);
    FileInto("spam", Mail(true, 0));
    FileInto("non-spam", Mail(false, 0));
    EXPECT_TRUE(Train(filter, &settings, Path("mbx"), TrainingFolder::kSpam));
    EXPECT_TRUE(Train(filter, &settings, Path("mbx"), TrainingFolder::kHam));
    std::string all;
    for (const std::string& line : log.Texts())
        all += line + "\n";
    for (std::size_t at = 0; (at = all.find(Path("mbx/"))) != std::string::npos;)
        all.replace(at, Path("mbx/").size(), "~/");
    EXPECT_EQ(all.substr(all.find("6 Removing")), ReadFile(DataPath("training.txt")));
    EXPECT_EQ(Folder("spam/trained").substr(0, 31), "flags 5, counters 1 1 1, next 1");
    EXPECT_EQ(Folder("non-spam/trained"), "not there");
}

TEST_F(TrainingTest, WhatCannotBeMovedStays)
{
    BayesianFilterSettings commands;
    const BayesianFilter filter(commands);
    FileInto("non-spam", Mail(false, 0));
    FileInto("non-spam", Mail(false, 1));
    FileInto("non-spam", Mail(false, 2));
    std::filesystem::remove(Path("mbx/non-spam/1"));
    log.ExpectError("non-spam/1 could not be copied");
    EXPECT_FALSE(Train(filter, &settings, Path("mbx"), TrainingFolder::kHam));
    EXPECT_EQ(Folder("non-spam"),
              "flags 5, counters 1 1 1, next 3; 1 stat env parts 1; files trained");
    EXPECT_TRUE(std::filesystem::exists(Path("mbx/non-spam/trained/1")));
}

TEST_F(TrainingTest, WithoutFolderOrSettings)
{
    const BayesianFilter filter{BayesianFilterSettings{}};
    EXPECT_TRUE(Train(filter, &settings, Path("mbx"), TrainingFolder::kSpam)) << "nothing to learn";
    EXPECT_FALSE(Train(filter, nullptr, Path("mbx"), TrainingFolder::kSpam));
    (void)settings.Set(AntiSpamConfig::Text::kSpamFolder, "../other");
    log.ExpectError("../other is no name of a folder");
    EXPECT_FALSE(Train(filter, &settings, Path("mbx"), TrainingFolder::kSpam));
    std::filesystem::create_directory(Path("mbx/non-spam"));
    log.ExpectError("non-spam cannot be read");
    EXPECT_FALSE(Train(filter, &settings, Path("mbx"), TrainingFolder::kHam));
}

}  // namespace
}  // namespace dl::testing
