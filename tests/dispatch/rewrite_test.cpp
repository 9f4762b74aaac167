// The copy of a posting that goes to the members.

#include "dispatch/rewrite.h"

#include <sstream>

#include "tests/support/queued.h"
#include "tests/support/site.h"

namespace dl::testing
{
namespace
{

constexpr char kTrace[] =
    "Received: from DL manager by mail.example.org\r\n  (KVT Quorvane 5.0) id 4190AB01; Tue, 09 "
    "Nov 2004 11:33:20 +0000\r\n";

}  // namespace

class Rewriting : public Site
{
 protected:
    Rewriting() { AddUsualLists(); }
    // The rewritten copy without its trace header; `bytes` as they stand.
    std::string Copy(const std::string& bytes, const std::string& list = kGarden)
    {
        Start();
        const unsigned long id = Submit(kAnna, {list}, "");
        std::FILE* file = std::fopen(GetMQPathName(id, ".msg").c_str(), "wb");
        EXPECT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), file), bytes.size());
        EXPECT_EQ(std::fclose(file), 0);
        const NewMQEntry entry;
        FolderFiling filing;
        EXPECT_EQ(RewriteListMessage(id, entry.get(), list, &filing), RewriteResult::kDone);
        const std::string copy = ReadFile(GetMQPathName(entry.get(), ".msg"));
        EXPECT_EQ(copy.substr(0, sizeof kTrace - 1), kTrace);
        EXPECT_EQ(Log(),
                  "6 Mailing list message (QID=4190AB01, full path: ~/queue/msg/"
                  "4190AB01.msg, size: " +
                      std::to_string(copy.size()) + " bytes) has been modified successfully.\n");
        return copy.substr(sizeof kTrace - 1);
    }
};

// Messages and copies lie in tests/data/rewritten.txt.
TEST_F(Rewriting, FollowsTheHeaderRules)
{
    for (const DataBlock& row : ReadBlocks("rewritten.txt"))
        EXPECT_EQ(Copy(Crlf(row.in)), Crlf(row.want)) << row.name;
}

TEST_F(Rewriting, DropsNotificationsForAListThatWantsIt)
{
    EXPECT_EQ(
        Copy("Disposition-Notification-To: x\r\n y\r\nReturn-Receipt-To: z\r\nFrom: a\r\n\r\n",
             kBoard),
        "From: a\r\nSender: board@lists.example.org\r\n\r\n");
}

TEST_F(Rewriting, BareLineFeedsNeverEndTheHeaderBlock)
{
    EXPECT_EQ(Copy("From: a\nSender: x\n y\n\nReceived: one\nReturn-Receipt-To: z\nbody\n"),
              "From: a\nSender: garden@lists.example.org\r\n\nX-orig-received: one\nbody\n");
    // A carriage return more does not end it either.
    EXPECT_EQ(Copy("From: a\r\n\r\r\nReceived: x\r\n\r\nReceived: y\r\n"),
              "From: a\r\n\r\r\nX-orig-received: x\r\nSender: garden@lists.example.org\r\n\r\n"
              "Received: y\r\n");
}

TEST_F(Rewriting, KeepsTheLastSubjectLineForTheTopics)
{
    const std::pair<const char*, const char*> rows[] = {
        {"From: a\r\n\r\nSubject: body\r\n", nullptr},
        {"Subject: one\r\n two\r\n\r\n", " one\r\n"},
        {"subject:one\r\nSUBJECT:  two \r\n\r\n", "  two \r\n"},
        {"Sender: x\r\nSubject: y\r\n\r\nSubject: body\r\n", " y\r\n"},
        {"Subject:", ""},
    };
    for (const auto& [in, want] : rows) {
        HeaderRewriter header(kGarden, false);
        std::istringstream lines(in);
        for (std::string line; header.InHeader() && std::getline(lines, line);)
            (void)header.Next(lines.eof() ? line : line + "\n");
        EXPECT_EQ(header.Subject(), want ? std::optional<std::string>(want) : std::nullopt) << in;
    }
}

TEST_F(Rewriting, HasNoLimits)
{
    const std::string line = "X-Long: " + std::string(10'000'000, 'x') + "\r\n";
    EXPECT_EQ(Copy(line + "\r\n" + line), line + "Sender: garden@lists.example.org\r\n\r\n" + line);
    std::string in;
    std::string want;
    for (int i = 0; i < 10'000; ++i) {
        in += "Received: " + std::to_string(i) + "\r\nReturn-Receipt-To: x\r\nX-" +
              std::to_string(i) + ": y\r\n z\r\n";
        want += "X-orig-received: " + std::to_string(i) + "\r\nX-" + std::to_string(i) +
                ": y\r\n z\r\n";
    }
    EXPECT_EQ(Copy(in + "\r\n"), want + "Sender: garden@lists.example.org\r\n\r\n");
}

// What only this message has at fault is answered; what the machine cannot do keeps it, unanswered.
TEST_F(Rewriting, OnlyTheMessagesOwnFaultIsAnswered)
{
    const struct {
        const char* name;
        FileCall call;
        int nth;
        const char* line;
    } rows[] = {
        {"reading is an I/O error", FileCall::kOpen, 2, "Input/output error"},
        {"no room for the file", FileCall::kCreate, 1, "No space left on device"},
        {"no room for its bytes", FileCall::kWrite, 1, "No space left on device"},
        {"no room at the end", FileCall::kClose, 1, "No space left on device"},
    };
    log.ExpectError("Unable to ");
    log.ExpectError("Breaking main loop at line: 640");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        log.ExpectError(row.line);
        Start();
        Submit("paul@example.org", {kGarden}, "From: a\nTo: b\n\nbody\n");
        files.Watch({"/queue/"});
        files.FailNth(row.call, row.nth);
        EXPECT_EQ(Run(), 1);
        EXPECT_TRUE(On().empty());
        EXPECT_EQ(On("dl").size(), 1U);
        EXPECT_EQ(QueueItems("dl").at(0).attempts, 0);
        EXPECT_EQ(Run(), 0);
        EXPECT_EQ(On().size(), 1U);
        EXPECT_TRUE(On("dl").empty());
    }
}

// The message is a folder: neither it nor a bounce with it can be read, and no other mail waits for
// its end.
TEST_F(Rewriting, AMessageThatCannotBeReadHoldsUpNobody)
{
    Start();
    const unsigned long id = Submit("paul@example.org", {kGarden}, "From: a\n\nbody\n");
    Submit("anna@example.com", {kGarden}, "From: a\n\nbody\n");
    std::filesystem::remove(GetMQPathName(id, ".msg"));
    std::filesystem::create_directory(GetMQPathName(id, ".msg"));
    log.ExpectError("Unable to read file");
    log.ExpectError("cannot be handled (500), next attempt in ");
    log.ExpectError("could not be handled in 5 attempts, moved from channel dl to dlhold");
    for (int i = 0; i < 6; ++i, clock.now += 60)
        EXPECT_EQ(Run(), 0);
    EXPECT_EQ(On().size(), 1U);
    EXPECT_TRUE(On("dl").empty());
    EXPECT_EQ(QueueItems("dlhold").size(), 1U);
    std::filesystem::remove(GetMQPathName(id, ".msg"));
}

}  // namespace dl::testing
