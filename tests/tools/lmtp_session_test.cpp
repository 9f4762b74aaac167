// The LMTP protocol without sockets: what is answered to what, and which text a message has.

#include "tools/dlsubmit/lmtp_session.h"

#include <gtest/gtest.h>

#include "tests/support/fixture.h"
#include "tools/dlsubmit/lmtp_text.h"

namespace dl::testing
{
namespace
{

using Sends = std::vector<std::string>;

// A session with an owner that takes everything, or what `outcome` says.
struct Talk {
    // `sends` are what the client sends without waiting, each behind the answer to the one before;
    // `piece` bytes arrive at a time.
    explicit Talk(const Sends& sends, LmtpOutcome outcome = LmtpOutcome::kStored,
                  std::size_t piece = 1U << 20)
    {
        limits.host = "h";
        limits.max_message_bytes = 100;
        limits.max_recipients = 3;
        LmtpSession session(&limits, &recipient_bytes);
        for (const std::string& send : sends) {
            for (std::size_t at = 0; at < send.size(); at += piece) {
                session.Receive(send.substr(at, piece));
                Run(&session, outcome);
            }
            replies += session.Output();
            session.Output().clear();
        }
        replies.erase(0, std::string("220 h LMTP dlsubmit\r\n").size());
    }

    void Run(LmtpSession* session, LmtpOutcome outcome)
    {
        for (;;) {
            switch (session->Next()) {
                case LmtpSession::Event::kMore:
                    return;
                case LmtpSession::Event::kBegin:
                    text.clear();
                    session->Begin();
                    break;
                case LmtpSession::Event::kText:
                    text += session->Text();
                    break;
                case LmtpSession::Event::kDiscard:
                    text.clear();
                    break;
                case LmtpSession::Event::kEnd:
                    messages += "<" + session->Sender() + ">";
                    for (std::size_t i = 0; i < session->Recipients().Size(); ++i)
                        messages += " " + std::string(session->Recipients().At(i));
                    messages += ": " + text + "|";
                    session->Finish(outcome, 0xAB);
                    break;
                case LmtpSession::Event::kRefused:
                    ++notes;
                    break;
                case LmtpSession::Event::kClose:
                    closed = true;
                    return;
            }
        }
    }

    LmtpLimits limits;
    std::size_t recipient_bytes = 0;
    std::string replies;
    std::string messages;
    std::string text;
    int notes = 0;
    bool closed = false;
};

const std::string kHello = "LHLO c\r\n";
const std::string kHelloReply =
    "250-h\r\n250-PIPELINING\r\n250-ENHANCEDSTATUSCODES\r\n250-8BITMIME\r\n250-SMTPUTF8\r\n"
    "250 SIZE 100\r\n";
const std::string kTo = "RCPT TO:<l@x.org>\r\n";
const std::string kStart = kHello + "MAIL FROM:<a@b.org>\r\n" + kTo + "DATA\r\n";
const std::string kStartReply =
    kHelloReply + "250 2.1.0 Ok\r\n250 2.1.5 Ok\r\n354 The text, then a line with a dot\r\n";
const std::string kStored = "250 2.0.0 Stored as 000000AB\r\n";
const std::string kOk = "250 2.0.0 Ok\r\n";

struct Row {
    const char* name;
    Sends sends;
    std::string replies;  // after the greeting; of a `hello` row behind the answer to LHLO
    std::string messages;
    bool closed = false;
};

const std::vector<Row>& Rows()
{
    static const std::vector<Row> rows = {
        {"one message",
         {kStart, "s\r\n\r\nt\r\n.\r\n"},
         kStartReply + kStored,
         "<a@b.org> l@x.org: s\r\n\r\nt\r\n|"},
        {"two recipients have two replies, three messages share a session",
         {kHello + "MAIL FROM:<>\r\n" + kTo + "rcpt to: <m@x.org>\r\nDATA\r\n", "1\r\n.\r\n",
          "MAIL FROM:<a@b.org> SIZE=3 BODY=8BITMIME\r\n" + kTo + "DATA\r\n", ".\r\n",
          "MAIL FROM:<@r,@s:a@b.org>\r\n" + kTo + "DATA\r\n", "..\r\n.\r\nQUIT\r\n"},
         kHelloReply +
             "250 2.1.0 Ok\r\n250 2.1.5 Ok\r\n250 2.1.5 Ok\r\n354 The text, then a line "
             "with a dot\r\n" +
             kStored + kStored + kStartReply.substr(kHelloReply.size()) + kStored +
             kStartReply.substr(kHelloReply.size()) + kStored + "221 2.0.0 Bye\r\n",
         "<> l@x.org m@x.org: 1\r\n|<a@b.org> l@x.org: |<a@b.org> l@x.org: .\r\n|",
         true},
        {"a refused recipient has no second reply",
         {kHello + "MAIL FROM:<a@b.org>\r\nRCPT TO:<nobody>\r\n" + kTo +
              "RCPT TO:<>\r\nRCPT TO:<a b@x.org>\r\nDATA\r\n",
          "x\r\n.\r\n"},
         kHelloReply +
             "250 2.1.0 Ok\r\n501 5.1.3 Not a usable address\r\n250 2.1.5 Ok\r\n"
             "501 5.1.3 Not a usable address\r\n501 5.1.3 Not a usable address\r\n"
             "354 The text, then a line with a dot\r\n" +
             kStored,
         "<a@b.org> l@x.org: x\r\n|"},
        {"UTF-8 addresses",
         {kHello + "MAIL FROM:<\xC3\xA4@b.org> SMTPUTF8\r\nRCPT TO:<\xC3\xB6@\xC3\xBC.org>\r\n"
                   "RCPT TO:<\xC3@x.org>\r\nDATA\r\n",
          ".\r\n"},
         kHelloReply +
             "250 2.1.0 Ok\r\n250 2.1.5 Ok\r\n501 5.1.3 Not a usable address\r\n"
             "354 The text, then a line with a dot\r\n" +
             kStored,
         "<\xC3\xA4@b.org> \xC3\xB6@\xC3\xBC.org: |"},
        {"a quoted local part may hold the bracket",
         {kHello + "MAIL FROM:<\"a>\\\"b\"@b.org> SIZE=1\r\n"},
         kHelloReply + "250 2.1.0 Ok\r\n",
         ""},
        {"too many recipients",
         {kHello + "MAIL FROM:<>\r\n" + kTo + kTo + kTo + kTo},
         kHelloReply + "250 2.1.0 Ok\r\n250 2.1.5 Ok\r\n250 2.1.5 Ok\r\n250 2.1.5 Ok\r\n"
                       "452 4.5.3 Too many recipients\r\n",
         ""},
        {"parameters",
         {kHello + "MAIL FROM:<> SIZE=101\r\nMAIL FROM:<> SIZE=x\r\nMAIL FROM:<> SIZE=-1\r\n"
                   "MAIL FROM:<> BODY=BINARYMIME\r\nMAIL FROM:<> RET=HDRS\r\n"
                   "MAIL FROM:<>SIZE=1\r\nMAIL FROM:<> SIZE=99999999999999999999999\r\n"
                   "MAIL FROM:<>\r\nRCPT TO:<l@x.org> NOTIFY=NEVER\r\n"},
         kHelloReply +
             "552 5.3.4 The message is too big\r\n501 5.5.4 Wrong value of a parameter\r\n"
             "501 5.5.4 Wrong value of a parameter\r\n"
             "501 5.5.4 Wrong value of a parameter\r\n"
             "555 5.5.4 This parameter is not known here\r\n"
             "501 5.5.4 Wrong syntax of the argument\r\n"
             "501 5.5.4 Wrong value of a parameter\r\n250 2.1.0 Ok\r\n"
             "555 5.5.4 This parameter is not known here\r\n",
         ""},
        {"out of order",
         {"MAIL FROM:<>\r\n" + kHello + kTo + "DATA\r\n",
          "MAIL FROM:<>\r\nMAIL FROM:<>\r\nDATA\r\n", "RSET\r\n" + kTo},
         "503 5.5.1 Say LHLO first\r\n" + kHelloReply +
             "503 5.5.1 Say MAIL first\r\n503 5.5.1 Say MAIL first\r\n250 2.1.0 Ok\r\n"
             "503 5.5.1 There is a sender already\r\n503 5.5.1 There is no recipient\r\n" +
             kOk + "503 5.5.1 Say MAIL first\r\n",
         ""},
        {"LHLO begins anew",
         {kHello + "MAIL FROM:<>\r\n" + kTo + kHello + "DATA\r\n"},
         kHelloReply + "250 2.1.0 Ok\r\n250 2.1.5 Ok\r\n" + kHelloReply +
             "503 5.5.1 Say MAIL first\r\n",
         ""},
        {"other commands",
         {"HELO c\r\nEHLO c\r\nLHLO\r\nNOOP x\r\nVRFY l\r\nVRFY\r\nHELP\r\nEXPN l\r\n"
          "STARTTLS\r\nMAILX\r\n\r\nMAIL FROM:a@b.org\r\n" +
          kHello +
          "MAIL FROM:a@b.org\r\n"
          "MAIL TO:<a@b.org>\r\nMAIL FROM:<a@b.org\r\nMAIL FROM:<a>b@x.org>\r\n"},
         "500 5.5.1 This is LMTP: say LHLO\r\n500 5.5.1 This is LMTP: say LHLO\r\n"
         "501 5.5.4 LHLO needs the name of the client\r\n" +
             kOk +
             "252 2.5.0 Whether it is a list is seen later\r\n"
             "501 5.5.4 Wrong syntax of the argument\r\n"
             "214 2.0.0 LHLO MAIL RCPT DATA RSET NOOP VRFY HELP QUIT\r\n"
             "502 5.5.1 This command is not offered\r\n502 5.5.1 This command is not offered\r\n"
             "500 5.5.1 This command is not known here\r\n"
             "500 5.5.1 This command is not known here\r\n503 5.5.1 Say LHLO first\r\n" +
             kHelloReply +
             "501 5.5.4 Wrong syntax of the argument\r\n"
             "501 5.5.4 Wrong syntax of the argument\r\n501 5.5.4 Wrong syntax of the argument\r\n"
             "501 5.5.4 Wrong syntax of the argument\r\n",
         ""},
        {"bare LF, bare CR and NUL in a command",
         {std::string("NOOP\nNOOP\rMAIL\r\nNO\0OP\r\nNOOP\r\n", 29)},
         "500 5.5.2 A line ends in CRLF\r\n500 5.5.2 No CR and no NUL in a line\r\n"
         "500 5.5.2 No CR and no NUL in a line\r\n" +
             kOk,
         ""},
        {"the longest line", {"NOOP " + std::string(4089, 'x') + "\r\n"}, kOk, ""},
        {"a line that is too long",
         {"NOOP " + std::string(4090, 'x') + "\r\nNOOP\r\n"},
         "500 5.5.2 The line is too long\r\n" + kOk,
         ""},
        {"a megabyte without a line end",
         {std::string(1U << 20, 'x') + "\r\nNOOP\r\n"},
         "500 5.5.2 The line is too long\r\n" + kOk,
         ""},
        {"a client that never says anything useful ends",
         {std::string(60, '\n'), kHello},
         [] {
             std::string replies;
             for (int i = 0; i < 50; ++i)
                 replies += "500 5.5.2 A line ends in CRLF\r\n";
             return replies + "421 4.7.0 Too many wrong commands\r\n";
         }(),
         "",
         true},
        {"QUIT in the middle",
         {kHello + "MAIL FROM:<>\r\n" + kTo + "QUIT\r\nDATA\r\n"},
         kHelloReply + "250 2.1.0 Ok\r\n250 2.1.5 Ok\r\n221 2.0.0 Bye\r\n",
         "",
         true},
        {"a text of the largest size",
         {kStart, std::string(98, 'x') + "\r\n.\r\n"},
         kStartReply + kStored,
         "<a@b.org> l@x.org: " + std::string(98, 'x') + "\r\n|"},
        {"a text that is too big is read to its end and refused for each recipient",
         {kHello + "MAIL FROM:<a@b.org>\r\n" + kTo + kTo + "DATA\r\n",
          std::string(400, 'x') + "\r\n..\r\n.\r\nNOOP\r\n", "MAIL FROM:<>\r\n" + kTo + "DATA\r\n",
          "t\r\n.\r\n"},
         kHelloReply +
             "250 2.1.0 Ok\r\n250 2.1.5 Ok\r\n250 2.1.5 Ok\r\n"
             "354 The text, then a line with a dot\r\n"
             "552 5.3.4 The message is too big\r\n552 5.3.4 The message is too big\r\n" +
             kOk + kStartReply.substr(kHelloReply.size()) + kStored,
         "<> l@x.org: t\r\n|"},
        {"a text without an end ends the session",
         {kStart, std::string(2000, 'x')},
         kStartReply + "421 4.7.0 The message does not end\r\n",
         "",
         true},
        {"a bare LF cannot end the text, and the rest stays text",
         {kStart, "a\n.\nMAIL FROM:<e@x.org>\n.\r\nb\r\n.\r\n"},
         kStartReply + kStored,
         "<a@b.org> l@x.org: a\r\n.\r\nMAIL FROM:<e@x.org>\r\n.\r\nb\r\n|"},
    };
    return rows;
}

}  // namespace

TEST(LmtpSession, AnswersAsTheTableSays)
{
    for (const Row& row : Rows()) {
        // Whole, and byte by byte: what arrives together must make no difference.
        for (const std::size_t piece : {std::size_t{1} << 21, std::size_t{1}}) {
            SCOPED_TRACE(row.name + (" in pieces of " + std::to_string(piece)));
            const Talk talk(row.sends, LmtpOutcome::kStored, piece);
            EXPECT_EQ(talk.replies, row.replies);
            EXPECT_EQ(talk.messages, row.messages);
            EXPECT_EQ(talk.closed, row.closed);
            EXPECT_EQ(talk.recipient_bytes, 0U) << "all is given back";
        }
    }
}

// What a client sends behind DATA before it is asked for is neither text nor command: each of the
// two readings has been used to slip in a message that a filter before us had not seen.
TEST(LmtpSession, NothingMayFollowDataBeforeItsAnswer)
{
    for (const std::string& start : {kStart, std::string("DATA\r\n"), kHello + "DATA\r\n"}) {
        const Talk talk({start + "MAIL FROM:<e@x.org>\r\n.\r\n"});
        EXPECT_TRUE(
            talk.replies.ends_with("421 4.5.0 Nothing may follow DATA before its answer\r\n"))
            << talk.replies;
        EXPECT_TRUE(talk.closed);
        EXPECT_EQ(talk.messages, "");
    }
}

TEST(LmtpSession, EachRecipientIsToldOfAFailure)
{
    const struct {
        LmtpOutcome outcome;
        const char* reply;
    } rows[] = {
        {LmtpOutcome::kTooBig, "552 5.3.4 The message is too big\r\n"},
        {LmtpOutcome::kNoSpace, "452 4.3.1 The disk is full, try again later\r\n"},
        {LmtpOutcome::kFailed, "451 4.3.0 The queue cannot take the message, try again later\r\n"},
    };
    for (const auto& row : rows) {
        const Talk talk({kHello, "MAIL FROM:<>\r\n", kTo + kTo + "DATA\r\n", "x\r\n.\r\n"},
                        row.outcome);
        EXPECT_TRUE(talk.replies.ends_with("dot\r\n" + std::string(row.reply) + row.reply))
            << talk.replies;
    }
}

TEST(LmtpSession, RecipientsOfAllSessionsTogetherAreBounded)
{
    LmtpLimits limits;
    limits.max_recipient_bytes = 60;
    std::size_t used = 0;
    const std::string start = kHello + "MAIL FROM:<>\r\n" + kTo + kTo;
    std::string replies;
    {
        LmtpSession first(&limits, &used);
        first.Receive(start);
        EXPECT_EQ(first.Next(), LmtpSession::Event::kMore);
        LmtpSession second(&limits, &used);
        second.Receive(start + kTo + kTo);
        while (second.Next() == LmtpSession::Event::kRefused) {
        }
        replies = second.Output();
    }
    EXPECT_NE(replies.find("250 2.1.5"), std::string::npos);
    EXPECT_TRUE(replies.ends_with("452 4.5.3 Too many recipients\r\n")) << replies;
    EXPECT_EQ(used, 0U);
}

// A client that pipelines and does not read: the session stops until its replies are taken.
TEST(LmtpSession, RepliesThatNobodyTakesStopTheSession)
{
    LmtpLimits limits;
    std::size_t used = 0;
    LmtpSession session(&limits, &used);
    std::string commands;
    for (int i = 0; i < 50'000; ++i)
        commands += "NOOP\r\n";
    session.Receive(commands);
    EXPECT_EQ(session.Next(), LmtpSession::Event::kMore);
    EXPECT_LT(session.Output().size(), 300'000U);
    EXPECT_GT(session.Buffered(), 100'000U);
    std::size_t replies = 0;
    while (session.HasOutput()) {
        replies += session.Output().size();
        session.Output().clear();
        EXPECT_EQ(session.Next(), LmtpSession::Event::kMore);
    }
    EXPECT_EQ(replies, std::string("220  LMTP dlsubmit\r\n").size() + 50'000 * kOk.size());
}

TEST(LmtpText, OnlyOneEndAndOneKindOfLineEnd)
{
    const struct {
        const char* name;
        std::string in;
        std::string text;
        std::string rest;  // "-": the end was not seen
    } rows[] = {
        {"empty", ".\r\n", "", ""},
        {"stuffed dots", "..\r\n...a\r\na.\r\n.\r\nQUIT", ".\r\n..a\r\na.\r\n", "QUIT"},
        {"a dot that should have been stuffed", ".a\r\n.\r\n", "a\r\n", ""},
        {"LF . CRLF", "a\n.\r\nb\r\n.\r\n", "a\r\n.\r\nb\r\n", ""},
        {"LF . LF", "a\n.\nb\r\n.\r\n", "a\r\n.\r\nb\r\n", ""},
        {"CRLF . LF", "a\r\n.\nb\r\n.\r\n", "a\r\n\r\nb\r\n", ""},
        {"CRLF . CR", "a\r\n.\rb\r\n.\r\n", "a\r\n b\r\n", ""},
        {"CR . CR", "a\r.\rb\r\n.\r\n", "a . b\r\n", ""},
        {"CR . CRLF", "a\r.\r\nb\r\n.\r\n", "a .\r\nb\r\n", ""},
        {"CRLF . CR CR LF", "a\r\n.\r\r\nb\r\n.\r\n", "a\r\n\r\nb\r\n", ""},
        {"CR CRLF . CRLF", "a\r\r\n\r\r\nb\r\rc\r\n.\r\n", "a\r\n\r\nb c\r\n", ""},
        {"LF CRLF . CRLF", "a\n\r\n.\r\n", "a\r\n\r\n", ""},
        {"a dot behind a bare LF was not stuffed", "a\n..b\r\n.\r\n", "a\r\n..b\r\n", ""},
        {"NUL", std::string("a\0b\r\n.\0\r\n.\r\n", 12), std::string("a\0b\r\n\0\r\n", 8), ""},
        {"NUL in the end", std::string("a\r\n\0.\r\n.\r\n", 10), std::string("a\r\n\0.\r\n", 7),
         ""},
        {"8-bit", "\xE4\xFF\r\n.\r\n", "\xE4\xFF\r\n", ""},
        {"no end", "a\r\n.\r", "a\r\n", "-"},
        {"a long line", std::string(300'000, 'x') + "\r\n.\r\n", std::string(300'000, 'x') + "\r\n",
         ""},
    };
    for (const auto& row : rows) {
        for (const std::size_t piece : {std::size_t{1} << 20, std::size_t{1}}) {
            SCOPED_TRACE(row.name + (" in pieces of " + std::to_string(piece)));
            TextDecoder decoder;
            std::string text;
            std::size_t used = 0;
            while (used < row.in.size() && !decoder.Ended())
                used += decoder.Decode(std::string_view(row.in).substr(used, piece), &text);
            EXPECT_EQ(text, row.text);
            EXPECT_EQ(decoder.Ended() ? row.in.substr(used) : "-", row.rest);
        }
    }
}

}  // namespace dl::testing
