// What dlsend decides without asking anyone.

#include "platform/queue/queue_backend.h"
#include "tests/support/fixture.h"
#include "tools/dlsend/answer.h"
#include "tools/dlsend/job.h"
#include "tools/dlsend/relay_settings.h"
#include "tools/dlsend/waiting_time.h"

namespace dl
{
namespace
{

CompactEnvelope EnvelopeOf(const std::vector<std::string>& addresses)
{
    stEnvelope envelope;
    EXPECT_TRUE(envelope.AddSender({.address = "o@example.org"}));
    for (const std::string& address : addresses)
        EXPECT_TRUE(envelope.AddRecipient({.address = address}));
    return DecodeCompact(EncodeEnvelope(envelope)).value();
}

std::string Transactions(const std::vector<std::string>& addresses, std::size_t limit,
                         const std::string& states = "")
{
    DeliveryRecord record;
    record.envelope = EnvelopeOf(addresses);
    record.states = states;
    Job job(DueEntry{}, std::move(record));
    std::string out;
    while (!job.AllAssigned()) {
        for (const std::uint32_t i : job.NextTransaction(limit))
            out += std::string(job.record.envelope.Recipient(i)) + " ";
        out += "| ";
    }
    return out;
}

TEST(DlsendRules, RecipientsOfOneDomainStayTogether)
{
    const std::vector<std::string> mixed = {"1@a", "2@b", "3@A", "4@c", "5@b", "6@a"};
    EXPECT_EQ(Transactions(mixed, 100), "1@a 3@A 6@a 2@b 5@b 4@c | ");
    EXPECT_EQ(Transactions(mixed, 4), "1@a 3@A 6@a | 2@b 5@b 4@c | ") << "b is not cut in two";
    EXPECT_EQ(Transactions(mixed, 2), "1@a 3@A | 6@a | 2@b 5@b | 4@c | ");
    EXPECT_EQ(Transactions({"1@a", "2@a", "3@a", "4@a", "5@a"}, 2), "1@a 2@a | 3@a 4@a | 5@a | ");
    EXPECT_EQ(Transactions(mixed, 1), "1@a | 3@A | 6@a | 2@b | 5@b | 4@c | ");
    EXPECT_EQ(Transactions(mixed, 100, std::string("\1\0\0\2\0\1", 6)), "2@b 5@b 3@A | ");
    EXPECT_EQ(Transactions({"\xC3\xBC@a", "1@a", "2@b", "3@\xC3\xBC"}, 100),
              "1@a 2@b | \xC3\xBC@a 3@\xC3\xBC | ")
        << "who needs SMTPUTF8 shares no transaction";
    EXPECT_EQ(Transactions({"no domain", "", "no domain"}, 9), "no domain no domain  | ");
    EXPECT_EQ(Transactions({}, 9), "");
}

TEST(DlsendRules, WaitsLongerEachTime)
{
    RelaySettings settings;
    settings.retry_min = 60;
    settings.retry_max = 3600;
    const std::int64_t want[] = {60, 120, 240, 480, 960, 1920, 3600, 3600};
    for (int tries = 0; tries < 8; ++tries)
        for (const std::uint32_t random : {0U, 1U, 77U, 0xFFFFFFFFU}) {
            const std::int64_t delay = RetryDelay(settings, tries, random);
            EXPECT_GE(delay, want[tries] * 3 / 4);
            EXPECT_LE(delay, want[tries] * 5 / 4);
        }
    EXPECT_LE(RetryDelay(settings, 1'000'000, 1), 4500);
    settings.retry_min = settings.retry_max = 1;
    EXPECT_EQ(RetryDelay(settings, 3, 5), 1);
}

// What a clock that is set adds or takes is nobody's waiting time.
TEST(DlsendRules, AMessageWaitsForRealTime)
{
    constexpr std::int64_t kDay = 86'400;
    WaitingTime time(1000, 50);
    EXPECT_EQ(time.Tick(1010, 60), 0);
    EXPECT_EQ(time.Of(1000, 1010), 10);
    EXPECT_EQ(time.Tick(1020 + 10 * kDay, 70), 10 * kDay);
    EXPECT_EQ(time.Of(1000, 1020 + 10 * kDay), 20) << "came before the jump";
    EXPECT_EQ(time.Of(1015 + 10 * kDay, 1020 + 10 * kDay), 5) << "came after it";
    EXPECT_EQ(time.Tick(1030 + 10 * kDay, 80), 0);
    EXPECT_EQ(time.Tick(1040, 90), -10 * kDay);
    EXPECT_EQ(time.Of(1000, 1040), 40);
    EXPECT_EQ(time.Tick(1100, 120), 0) << "less than a minute is drift";
    EXPECT_EQ(time.Tick(1110 - kDay, 130), -kDay);
    EXPECT_LT(time.Of(1000, 1110 - kDay), 0) << "late rather than early";
    EXPECT_EQ(time.Tick(1120, 140), kDay);
    EXPECT_LE(time.Of(1000, 1120), 120);
}

TEST(DlsendRules, WaitingTimeOutlivesTheProcess)
{
    constexpr std::int64_t kDay = 86'400;
    WaitingTime before(1000, 50);
    (void)before.Tick(1010 + kDay, 60);
    const struct {
        const char* name;
        std::string text;
        std::int64_t now, uptime, jump, waited;
    } rows[] = {
        {"nothing happened", before.Text(), 1020 + kDay, 70, 0, 20},
        {"set while it was down", before.Text(), 1020 + 11 * kDay, 70, 10 * kDay, 20},
        {"and back", before.Text(), 1020, 70, -kDay, 20},
        {"the host was down", before.Text(), 1020 + 11 * kDay, 5, 0, 10 * kDay + 20},
        {"and lost its clock", before.Text(), 1010, 5, -kDay, 10},
        {"no text", "nonsense", 1020 + kDay, 70, 0, kDay + 20},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        WaitingTime time(row.now, row.uptime);
        time.Restore(row.text);
        EXPECT_EQ(time.Tick(row.now, row.uptime), row.jump);
        EXPECT_EQ(time.Of(1000, row.now), row.waited);
    }
}

TEST(DlsendRules, ReadsAnswersAndMakesThemFields)
{
    for (const auto& row : testing::ReadTable("tables/platform.txt", "answers")) {
        SCOPED_TRACE(row.at(0));
        const Answer answer = ParseAnswer(row.at(0));
        EXPECT_EQ(answer.code, std::stoi(row.at(1)));
        EXPECT_EQ(StatusField(answer, false), row.at(2));
        EXPECT_EQ(StatusField(answer, true), row.at(3));
        EXPECT_EQ(answer.text, row.at(4));
    }
    EXPECT_EQ(AddressField("a@example.org"), "rfc822; a@example.org");
    EXPECT_EQ(AddressField("a\r\nb\x01@example.org"), "rfc822; a  b @example.org");
    EXPECT_EQ(AddressField("m\xC3\xBCl+\xF0\x9F\x98\x80@example.org"),
              "utf-8; m\\x{FC}l\\x{2B}\\x{1F600}@example.org");
    EXPECT_EQ(AddressField("\xFF\n\xC3\xBC"), "utf-8; ?\\x{20}\\x{FC}");
    EXPECT_EQ(CleanText("a\nb\xC2\x85"
                        "c\xC3\xBC\xFF",
                        100),
              "a b c\xC3\xBC?");
    EXPECT_EQ(CleanText("ab\xC3\xBC", 3), "ab");
    EXPECT_EQ(CleanAscii(std::string("a\0\xC3\xBC\x7f", 5), 100), "a ???");
}

}  // namespace
}  // namespace dl
