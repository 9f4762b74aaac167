#include "platform/smtp/session.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <thread>

#include "tests/support/fixture.h"
#include "tests/support/scripted_relay.h"

namespace dl::smtp
{
namespace
{

using dl::testing::RelayedMessage;
using dl::testing::RelayReaction;
using dl::testing::RelayStep;
using dl::testing::ScriptedRelay;
using dl::testing::When;

constexpr char kText[] = "Subject: x\r\n\r\nbody\r\n";

class SessionTest : public dl::testing::Fixture
{
 protected:
    SessionTest() { Open(kText); }

    void Open(const std::string& text)
    {
        message = std::make_unique<MessageFile>();
        std::string cause;
        ASSERT_TRUE(message->Open(Write("m.msg", text), &cause)) << cause;
    }
    static Relay At(const ScriptedRelay& server, bool lmtp = false)
    {
        Relay relay;
        relay.port = server.Port();
        relay.lmtp = lmtp;
        relay.helo = "dl.example.org";
        relay.connect_timeout = std::chrono::milliseconds(3000);
        relay.answer_timeout = std::chrono::milliseconds(3000);
        relay.data_timeout = std::chrono::milliseconds(3000);
        return relay;
    }
    static void Connect(Session* session, const Relay& relay)
    {
        std::string problem;
        ASSERT_TRUE(session->Open(relay, &problem)) << problem;
    }
    static std::vector<std::string> Addresses(int count)
    {
        std::vector<std::string> addresses;
        addresses.reserve(static_cast<std::size_t>(count));
        for (int i = 0; i < count; ++i)
            addresses.push_back("r" + std::to_string(i) + "@example.org");
        return addresses;
    }
    TransactionResult Send(Session& session, const std::vector<std::string>& to,
                           const char* sender = "list-owner@example.org")
    {
        Transaction transaction;
        transaction.sender = sender;
        transaction.recipients.assign(to.begin(), to.end());
        transaction.message = message.get();
        return session.Send(transaction);
    }
    // "A" accepted, "L" later, "N" next time, "R" refused, "U" unknown, in order.
    static std::string Outcomes(const TransactionResult& result)
    {
        std::string out;
        for (const RecipientResult& one : result.recipients)
            out += "ALNRU"[static_cast<int>(one.outcome)];
        return out;
    }

    std::unique_ptr<MessageFile> message;
};

TEST_F(SessionTest, HandsSeveralMessagesOverOnOneConnection)
{
    ScriptedRelay relay;
    Session session;
    Connect(&session, At(relay));
    const std::string long_line(998, 'l');
    const std::string text = "Subject: \xC3\xBC\r\n\r\n.\r\n..\r\n" + long_line + "\r\nend\r\n";
    Open(text);
    const TransactionResult first =
        Send(session, {"a@example.org", "<b@example.org>", "\"c d\"@example.org"});
    EXPECT_EQ(Outcomes(first), "AAA");
    EXPECT_EQ(first.recipients[0].Line(), "250 2.0.0 queued as 0");
    EXPECT_EQ(Outcomes(Send(session, {"m\xC3\xBCller@example.org"}, "<>")), "A");
    EXPECT_EQ(session.Transactions(), 2);
    session.Quit();

    const std::vector<RelayedMessage> got = relay.Messages();
    ASSERT_EQ(got.size(), 2U);
    EXPECT_EQ(relay.Connections(), 1);
    EXPECT_EQ(got[0].sender, "list-owner@example.org");
    EXPECT_EQ(got[0].mail_arguments, " SIZE=" + std::to_string(text.size()) + " BODY=8BITMIME");
    EXPECT_EQ(got[0].recipients,
              (std::vector<std::string>{"a@example.org", "b@example.org", "\"c d\"@example.org"}));
    EXPECT_EQ(got[0].text, text);
    EXPECT_EQ(got[1].sender, "");
    EXPECT_EQ(got[1].mail_arguments,
              " SIZE=" + std::to_string(text.size()) + " BODY=8BITMIME SMTPUTF8");
    const std::vector<std::string> commands = relay.Commands();
    EXPECT_EQ(commands[0], "EHLO dl.example.org");
    EXPECT_EQ(std::count(commands.begin(), commands.end(), "RSET"), 0);
}

// What the relay says at each step, with pipelining and without, and what becomes of five
// recipients of whom the relay refuses the third.
TEST_F(SessionTest, GivesEachRecipientWhatTheRelaySaid)
{
    for (const bool pipelining : {true, false}) {
        for (const auto& row : dl::testing::ReadTable("tables/mail.txt", "what a relay says")) {
            SCOPED_TRACE(row.at(0) + (pipelining ? ", pipelined" : ""));
            const bool stays_open = row.at(6) == "true";
            ScriptedRelay::Options options;
            options.abilities = pipelining ? options.abilities : std::vector<std::string>();
            ScriptedRelay relay(
                [&](const RelayStep& step) -> std::optional<RelayReaction> {
                    if (step.verb == row.at(1) && step.transaction == 1 &&
                        (step.recipient == 0 || step.verb != "RCPT"))
                        return RelayReaction{row.at(2), row.at(3) == "true"};
                    if (step.line.starts_with("RCPT TO:<r2@"))
                        return RelayReaction{"550 5.1.1 unknown"};
                    return std::nullopt;
                },
                options);
            Session session;
            Connect(&session, At(relay));
            const TransactionResult result = Send(session, Addresses(5));
            EXPECT_EQ(Outcomes(result), row.at(4));
            EXPECT_EQ(result.recipients[0].Line(), row.at(5));
            EXPECT_EQ(session.IsOpen(), stays_open);
            EXPECT_EQ(result.lost, !stays_open);
            if (!stays_open)
                continue;
            // What went wrong must not reach into the next transaction.
            EXPECT_EQ(Outcomes(Send(session, {"next@example.org"})), "A");
            EXPECT_EQ(relay.Messages().back().recipients,
                      std::vector<std::string>{"next@example.org"});
        }
    }
}

TEST_F(SessionTest, EndsAnEmptyMessageThatNobodyIsToGet)
{
    for (const bool lmtp : {false, true}) {
        ScriptedRelay::Options options;
        options.lmtp = lmtp;
        ScriptedRelay relay(
            [](const RelayStep& step) -> std::optional<RelayReaction> {
                if (step.transaction > 1 || step.connection > 1)
                    return std::nullopt;
                if (step.verb == "RCPT")
                    return RelayReaction{"550 5.1.1 unknown"};
                return step.verb == "DATA" ? std::optional(RelayReaction{"354 go on"})
                                           : std::nullopt;
            },
            options);
        Session session;
        Connect(&session, At(relay, lmtp));
        EXPECT_EQ(Outcomes(Send(session, Addresses(3))), "RRR");
        if (lmtp) {  // it has no reply for nobody, so the connection is not used again
            EXPECT_FALSE(session.IsOpen());
            Connect(&session, At(relay, lmtp));
        }
        EXPECT_EQ(Outcomes(Send(session, {"next@example.org"})), "A");
        for (const RelayedMessage& got : relay.Messages())
            EXPECT_EQ(got.text, got.recipients.empty() ? "" : kText);
    }
}

// A relay that takes recipients for a sender that it has refused would take an empty message too.
TEST_F(SessionTest, SendsNothingToARelayThatHasLostItsWay)
{
    ScriptedRelay relay([](const RelayStep& step) -> std::optional<RelayReaction> {
        if (step.verb == "MAIL")
            return RelayReaction{"451 later"};
        return step.verb == "RCPT" ? std::optional(RelayReaction{"250 ok"}) : std::nullopt;
    });
    Session session;
    Connect(&session, At(relay));
    EXPECT_EQ(Outcomes(Send(session, Addresses(3))), "LLL");
    EXPECT_FALSE(session.IsOpen());
    EXPECT_TRUE(relay.Messages().empty());
}

TEST_F(SessionTest, TellsTooManyRecipientsFromAFullMailbox)
{
    const std::map<std::string, std::string> replies = {
        {"452 4.5.3 too many", "AAANNN"}, {"452 too many", "AAANNN"},
        {"552 too many", "AAANNN"},       {"452 4.2.2 full", "AAALLL"},
        {"552 5.2.2 full", "AAARRR"},     {"450 4.2.0 greylisted", "AAALLL"}};
    for (const auto& [reply, want] : replies) {
        const auto fourth = [](const RelayStep& step) {
            return step.verb == "RCPT" && step.recipient >= 3;
        };
        ScriptedRelay relay(When(fourth, {reply}));
        Session session;
        Connect(&session, At(relay));
        EXPECT_EQ(Outcomes(Send(session, Addresses(6))), want) << reply;
    }
    // The first of a transaction cannot be one too many.
    ScriptedRelay full(When("RCPT", {"452 no"}));
    Session session;
    Connect(&session, At(full));
    EXPECT_EQ(Outcomes(Send(session, Addresses(2))), "LL");
}

TEST_F(SessionTest, LmtpAnswersForEachRecipient)
{
    ScriptedRelay::Options options;
    options.lmtp = true;
    options.socket = Path("lmtp");
    ScriptedRelay relay(
        [](const RelayStep& step) -> std::optional<RelayReaction> {
            if (step.verb == "RCPT" && step.recipient == 1)
                return RelayReaction{"550 5.1.1 unknown"};
            if (step.verb != ".")
                return std::nullopt;
            if (step.recipient == 1)
                return RelayReaction{"452 4.2.2 full"};
            if (step.transaction == 2 && step.recipient == 2)
                return RelayReaction{"", true};
            return std::nullopt;
        },
        options);
    Relay where = At(relay, true);
    where.socket = options.socket;
    Session session;
    std::string problem;
    ASSERT_TRUE(session.Open(where, &problem)) << problem;
    EXPECT_EQ(Outcomes(Send(session, Addresses(5))), "ARLAA");
    EXPECT_EQ(Outcomes(Send(session, Addresses(5))), "ARLUU");
    EXPECT_FALSE(session.IsOpen());
}

TEST_F(SessionTest, RefusesWhatTheRelayCannotTake)
{
    ScriptedRelay::Options options;
    options.abilities = {"SIZE 1000"};
    ScriptedRelay relay(nullptr, options);
    Session session;
    Connect(&session, At(relay));
    const TransactionResult result =
        Send(session, {"m\xC3\xBCller@example.org", "a@example.org",
                       "b@example.org>\r\nRCPT TO:<evil@example.org", "no address",
                       std::string("nul\0@example.org", 16)});
    EXPECT_EQ(Outcomes(result), "RARRR");
    EXPECT_EQ(result.recipients[0].enhanced, "5.6.7");
    EXPECT_EQ(result.recipients[2].enhanced, "5.1.3");
    EXPECT_EQ(relay.Messages()[0].recipients, std::vector<std::string>{"a@example.org"});
    EXPECT_EQ(Outcomes(Send(session, {"a@example.org"}, "\xC3\xBC-owner@example.org")), "R");
    EXPECT_EQ(Outcomes(Send(session, {"a@example.org"}, "x\r\nRSET")), "A");
    EXPECT_EQ(relay.Messages()[1].sender, "");
    Open(std::string(995, 'x') + "\n" + "yyyy\n");
    const TransactionResult big = Send(session, {"a@example.org"});
    EXPECT_EQ(Outcomes(big), "R");
    EXPECT_EQ(big.recipients[0].Line(), "5.3.4 the message is larger than the relay takes");
}

TEST_F(SessionTest, SaysWhyARelayCannotBeUsed)
{
    struct Row {
        const char *verb, *reply;
        bool closes;
        const char* problem;  // empty: it can
    };
    const Row rows[] = {
        {"CONNECT", "554 5.3.2 not now", true, "it answered 554 5.3.2 not now"},
        {"CONNECT", "421 busy", true, "it answered 421 busy"},
        {"CONNECT", "SSH-2.0-x", false, "the relay sent a reply that cannot be understood"},
        {"CONNECT", "", true, "the relay closed the connection"},
        {"CONNECT", "", false, "the relay did not answer in time"},
        {"EHLO", "502 what?", false, ""},
        {"EHLO", "421 bye", true, "it answered 421 bye"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.problem);
        const bool stalls = !*row.reply && !row.closes;
        ScriptedRelay relay(When(row.verb, {row.reply, row.closes, stalls}));
        Session session;
        std::string problem;
        Relay where = At(relay);
        where.answer_timeout = std::chrono::milliseconds(600);
        EXPECT_EQ(session.Open(where, &problem), std::string(row.problem).empty());
        EXPECT_EQ(problem, row.problem);
        if (session.IsOpen()) {
            EXPECT_EQ(Outcomes(Send(session, Addresses(3))), "AAA");
        }
    }
    Session session;
    std::string problem;
    Relay nowhere;
    nowhere.port = dl::testing::FreePort();
    EXPECT_FALSE(session.Open(nowhere, &problem));
    EXPECT_EQ(problem, "Connection refused");
    nowhere.socket = Path("none");
    EXPECT_FALSE(session.Open(nowhere, &problem));
    EXPECT_EQ(problem, "No such file or directory");
    nowhere.socket = std::string(200, 'x');
    EXPECT_FALSE(session.Open(nowhere, &problem));
}

TEST_F(SessionTest, WaitsNoLongerThanItIsTold)
{
    for (const char* verb : {"MAIL", "."}) {
        ScriptedRelay relay(When(verb, {"", false, true}));
        const std::string want = *verb == '.' ? "U" : "L";
        Relay where = At(relay);
        where.answer_timeout = where.data_timeout = std::chrono::milliseconds(300);
        std::string problem;
        Session session;
        ASSERT_TRUE(session.Open(where, &problem)) << problem;
        const TransactionResult late = Send(session, {"a@example.org"});
        EXPECT_EQ(Outcomes(late), want);
        EXPECT_EQ(late.recipients[0].text, "the relay did not answer in time");

        std::atomic<bool> abort{false};
        Session ended(&abort);
        where.answer_timeout = where.data_timeout = std::chrono::milliseconds(60'000);
        ASSERT_TRUE(ended.Open(where, &problem)) << problem;
        std::thread later([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            abort = true;
        });
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(Outcomes(Send(ended, {"a@example.org"})), want);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
        later.join();
    }
}

// The relay answers each command before it reads the next, with long replies: both sides' buffers
// fill, and only a client that reads while it writes comes to an end.
TEST_F(SessionTest, TenThousandRecipientsInOneTransaction)
{
    const std::string padding(300, 'x');
    ScriptedRelay relay([&](const RelayStep& step) -> std::optional<RelayReaction> {
        if (step.verb != "RCPT")
            return std::nullopt;
        return RelayReaction{(step.recipient % 10 == 9 ? "550 5.1.1 " : "250 2.1.5 ") + padding};
    });
    Session session;
    Connect(&session, At(relay));
    const TransactionResult result = Send(session, Addresses(10'000));
    EXPECT_EQ(result.accepted, 9000U);
    for (std::size_t i = 0; i < result.recipients.size(); ++i)
        ASSERT_EQ(result.recipients[i].outcome,
                  i % 10 == 9 ? Outcome::kRefused : Outcome::kAccepted)
            << i;
}

// A relay that refuses a large message before it has read it all.
TEST_F(SessionTest, HearsARefusalInTheMiddleOfTheMessage)
{
    Open(std::string(990, 'x') + "\n" + std::string(8'000'000, 'y'));
    for (const bool lmtp : {false, true}) {
        ScriptedRelay::Options options;
        options.lmtp = lmtp;
        ScriptedRelay relay(When("DATA", {"354 go on\r\n552 5.3.4 too much", false, true}),
                            options);
        Session session;
        Connect(&session, At(relay, lmtp));
        const TransactionResult result = Send(session, Addresses(3));
        EXPECT_EQ(result.recipients[0].Line(), "552 5.3.4 too much");
        EXPECT_EQ(Outcomes(result), lmtp ? "RLL" : "RRR");
        EXPECT_TRUE(result.lost);
    }
}

}  // namespace
}  // namespace dl::smtp
