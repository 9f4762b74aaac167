// The copy of a posting that goes to the members.

#include "dispatch/rewrite.h"

#include <sstream>

#include "tests/support/site.h"

namespace dl::testing
{
namespace
{

constexpr char kTrace[] =
    "Received: from DL manager by mail.example.org\r\n  (KVT Quorvane 5.0) id 4190AB01; Tue, 09 "
    "Nov 2004 11:33:20 +0000\r\n";
constexpr char kSenderLine[] = "Sender: garden@lists.example.org\n";

using namespace std::string_literals;

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
        EXPECT_EQ(RewriteListMessage(id, entry.get(), list), RewriteResult::kDone);
        const std::string copy = ReadFile(GetMQPathName(entry.get(), ".msg"));
        EXPECT_EQ(copy.substr(0, sizeof kTrace - 1), kTrace);
        EXPECT_EQ(Log(),
                  "6 Mailing list message (QID=4190AB01, full path: ~/queue/msg/"
                  "4190AB01.msg, size: " +
                      std::to_string(copy.size()) + " bytes) has been modified successfully.\n");
        return copy.substr(sizeof kTrace - 1);
    }
};

TEST_F(Rewriting, FollowsTheHeaderRules)
{
    struct Row {
        const char* name;
        std::string in;    // "\n" stands for CRLF
        std::string want;  // likewise
    };
    const std::string end = kSenderLine + "\n"s;
    const Row rows[] = {
        {"the sender comes last", "From: a\nTo: b\n\nbody\n", "From: a\nTo: b\n" + end + "body\n"},
        {"its place is taken when there is one", "SENDER: x@y\nFrom: a\n\nbody\n",
         kSenderLine + "From: a\n\nbody\n"s},
        {"a folded one goes whole", "Sender: x\n  y\n\tz\nFrom: a\n b\n\n",
         kSenderLine + "From: a\n b\n\n"s},
        {"each of two is replaced", "Sender: x\nFrom: a\nsender: y\n\n",
         kSenderLine + "From: a\n"s + kSenderLine + "\n"},
        {"trace headers are renamed, in their order",
         "Received: one\n by two\nRECEIVED:three\nFrom: a\n\nReceived: body\n",
         "X-orig-received: one\n by two\nX-orig-received:three\nFrom: a\n" + end +
             "Received: body\n"},
        {"receipts of one kind always go",
         "Return-Receipt-To: x\n y\n\tz\nRETURN-RECEIPT-TO: w\n"
         "Disposition-Notification-To: v\n u\nFrom: a\n\n",
         "Disposition-Notification-To: v\n u\nFrom: a\n" + end},
        {"a trace header behind a dropped one loses its text and the next line's start",
         "Return-Receipt-To: x\nReceived: one\n by two\nFrom: a\n\n",
         "X-orig-received:From: a\n" + end},
        {"so does one behind a sender",
         "Sender: x\nReceived: one\n\tby two\nReceived: three\nTo: b\n\n",
         kSenderLine + "X-orig-received:X-orig-received:To: b\n\n"s},
        {"but not one without a blank", "Sender: x\nReceived:one\nTo: b\n\n",
         kSenderLine + "X-orig-received:one\nTo: b\n\n"s},
        {"and it may end the header block", "Sender: x\nReceived: one\n\nbody\n",
         kSenderLine + "X-orig-received:\nbody\n"s},
        {"a subject stays", "SUBJECT: one\n two\n\nSubject: body\n",
         "SUBJECT: one\n two\n" + end + "Subject: body\n"},
        {"a subject behind a dropped header", "Sender: x\nSubject: one\n two\n\n",
         kSenderLine + "Subject: one\n two\n\n"s},
        {"continuation lines of nothing", " x\n\ty\nFrom: a\n\n", " x\n\ty\nFrom: a\n" + end},
        {"a line of blanks does not end the header block", "From: a\n \nReceived: x\n\n",
         "From: a\n \nX-orig-received: x\n" + end},
        {"names that only begin alike", "Senders: x\nReceived-SPF: y\nReturn-Receipt: z\n\n",
         "Senders: x\nReceived-SPF: y\nReturn-Receipt: z\n" + end},
        {"no header", "\nbody\n\nReceived: x\n", end + "body\n\nReceived: x\n"},
        {"no header end", "From: a\nReceived: x\n", "From: a\nX-orig-received: x\n"},
        {"no line end at the end", "From: a\n\nbody", "From: a\n" + end + "body"},
        {"an empty message", "", ""},
        {"lines that look like the end of a message", "From: a\n\n.\n..\n",
         "From: a\n" + end + ".\n..\n"},
        {"eight bits", "From: \xe4\xff\n\n\x80\xc3\n", "From: \xe4\xff\n" + end + "\x80\xc3\n"},
        {"NUL", "From: a\0b\nSender: \0\n\n\0\n"s, "From: a\0b\n"s + kSenderLine + "\n\0\n"s},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Copy(Crlf(row.in)), Crlf(row.want));
    }
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

// The reason that the sender is told, and the log lines; the one of a failed write names the
// message that came in.
TEST_F(Rewriting, FailureIsAnsweredToTheSender)
{
    struct Row {
        const char* name;
        FileCall call;
        int nth;
        std::vector<std::string> errors;
        const char* reason;
    };
    const std::string queued = Path("queue/msg/4190AB00.msg");
    const std::string made = Path("queue/msg/4190AB01.msg");
    const Row rows[] = {
        // The content scan opens the message first.
        {"not opened",
         FileCall::kOpen,
         2,
         {"Unable to open file: " + queued},
         "The original message cannot be read."},
        {"not read",
         FileCall::kRead,
         2,
         {"Unable to read file: " + queued},
         "The original message cannot be read."},
        {"not created",
         FileCall::kCreate,
         1,
         {"Unable to open file: " + made},
         "Unable to create a file."},
        {"no trace header",
         FileCall::kWrite,
         1,
         {"Unable to write file: " + made},
         "Unable to write data to the message file."},
        {"no header line",
         FileCall::kWrite,
         2,
         {"Unable to write file: " + queued},
         "Unable to write data to the message file."},
        {"no last line",
         FileCall::kWrite,
         5,
         {"Unable to write file: " + queued},
         "Unable to write data to the message file."},
        {"not closed",
         FileCall::kClose,
         1,
         {"Unable to write file: " + queued},
         "Unable to write data to the message file."},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Start();
        Submit("paul@example.org", {kGarden}, "From: a\nTo: b\n\nbody\n");
        files.Watch({"/queue/"});
        files.FailNth(row.call, row.nth);
        std::string want;
        for (const std::string& error : row.errors) {
            log.ExpectError(error);
            want += "1 " + error + "\n";
        }
        EXPECT_EQ(Run(), 0);
        std::string errors;
        for (const std::string& line : log.Texts(1))
            errors += line + "\n";
        EXPECT_EQ(errors, want);
        const std::vector<Queued> out = On();
        ASSERT_EQ(out.size(), 1U);
        EXPECT_EQ(out[0].Brief(), "<> -> paul@example.org: unable to deliver mail\n");
        EXPECT_NE(out[0].text.find("\r\n\r\n\tThere was a problem occurred while processing the "
                                   "message to the mailing list: \"garden@lists.example.org\"\r\n"
                                   "Reason: " +
                                   std::string(row.reason) +
                                   "\r\nPlease resend your message again.\r\n\r\n\r\n--"),
                  std::string::npos)
            << out[0].text;
        EXPECT_EQ(out[0].flags, 0);
        EXPECT_EQ(Unfinished(), 0);
        EXPECT_TRUE(On("dl").empty());
    }
}

TEST_F(Rewriting, FileThatIsGoneIsTold)
{
    Start();
    Submit("paul@example.org", {kGarden}, "x\n");
    const Incoming message = Take();
    std::filesystem::remove(message.MessagePath());
    log.ExpectError("Unable to open file: ");
    log.ExpectError("File does not exist");
    const NewMQEntry entry;
    EXPECT_EQ(RewriteListMessage(message.id, entry.get(), kGarden), RewriteResult::kUnreadable);
    EXPECT_EQ(Log(), "1 Unable to open file: ~/queue/msg/4190AB00.msg\n1 File does not exist\n");
}

}  // namespace dl::testing
