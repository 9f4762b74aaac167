// What dlsend decides without asking anyone.

#include <gtest/gtest.h>

#include "platform/queue/queue_backend.h"
#include "tools/dlsend/answer.h"
#include "tools/dlsend/job.h"
#include "tools/dlsend/relay_settings.h"

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

TEST(DlsendRules, ReadsAnswersAndMakesThemFields)
{
    struct Row {
        const char* line;
        int code;
        const char* status;
        const char* expired;
        const char* text;
    };
    const Row rows[] = {
        {"550 5.1.1 no such user", 550, "5.1.1", "4.4.7", "no such user"},
        {"550 no such user", 550, "5.0.0", "4.4.7", "no such user"},
        {"450 4.2.0 greylisted", 450, "5.0.0", "4.4.7", "greylisted"},
        {"5.1.3 the address cannot be used", 0, "5.1.3", "4.4.7", "the address cannot be used"},
        {"the relay closed the connection", 0, "5.0.0", "4.4.7", "the relay closed the connection"},
        {"", 0, "5.0.0", "4.4.7", ""},
        {"550", 550, "5.0.0", "4.4.7", ""},
        {"550 5..1 x", 550, "5.0.0", "4.4.7", "5..1 x"},
        {"550 5.1.1000 x", 550, "5.0.0", "4.4.7", "5.1.1000 x"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.line);
        const Answer answer = ParseAnswer(row.line);
        EXPECT_EQ(answer.code, row.code);
        EXPECT_EQ(answer.text, row.text);
        EXPECT_EQ(StatusField(answer, false), row.status);
        EXPECT_EQ(StatusField(answer, true), row.expired);
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
