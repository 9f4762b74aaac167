// The LMTP protocol without sockets: what is answered to what, and which text a message has.

#include "tools/dlsubmit/lmtp_session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

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

struct Dialogue {
    Sends sends;
    std::string replies;  // after the greeting
    std::string messages;
    bool closed = false;
};

Dialogue ReadDialogue(const std::string& lines)
{
    Dialogue all;
    std::istringstream in(lines);
    bool heard = true;
    for (std::string line; std::getline(in, line);) {
        const std::string text =
            Unescaped(std::string_view(line).substr(std::min<std::size_t>(line.size(), 2)));
        const bool hello = text == "(hello)";
        const bool start = text == "(start)";
        if (line.starts_with('>')) {
            if (heard)
                all.sends.emplace_back();
            all.sends.back() += hello ? kHello : start ? kStart : text + "\r\n";
        } else if (line.starts_with('<')) {
            all.replies += hello ? kHelloReply : start ? kStartReply : text + "\r\n";
        } else if (line.starts_with('=')) {
            all.messages += text + "|";
        }
        heard = !line.starts_with('>');
        all.closed = all.closed || line == "closed";
    }
    return all;
}

}  // namespace

// The dialogues lie in tests/data/lmtp_dialogues.txt.
TEST(LmtpSession, AnswersAsItEverDid)
{
    for (const DataBlock& row : ReadBlocks("lmtp_dialogues.txt")) {
        const Dialogue want = ReadDialogue(row.in);
        // Whole, and byte by byte: what arrives together must make no difference.
        for (const std::size_t piece : {std::size_t{1} << 21, std::size_t{1}}) {
            SCOPED_TRACE(row.name + " in pieces of " + std::to_string(piece));
            const Talk talk(want.sends, LmtpOutcome::kStored, piece);
            EXPECT_EQ(talk.replies, want.replies);
            EXPECT_EQ(talk.messages, want.messages);
            EXPECT_EQ(talk.closed, want.closed);
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
    EXPECT_EQ(replies, std::string("220  LMTP dlsubmit\r\n").size() +
                           50'000 * std::string("250 2.0.0 Ok\r\n").size());
}

TEST(LmtpText, OnlyOneEndAndOneKindOfLineEnd)
{
    for (const auto& row : ReadTable("tables/mail.txt", "text of a message")) {
        for (const std::size_t piece : {std::size_t{1} << 20, std::size_t{1}}) {
            SCOPED_TRACE(row.at(0) + " in pieces of " + std::to_string(piece));
            const std::string& in = row.at(1);
            TextDecoder decoder;
            std::string text;
            std::size_t used = 0;
            while (used < in.size() && !decoder.Ended())
                used += decoder.Decode(std::string_view(in).substr(used, piece), &text);
            EXPECT_EQ(text, row.at(2));
            EXPECT_EQ(decoder.Ended() ? in.substr(used) : "?", row.at(3));
        }
    }
}

}  // namespace dl::testing
