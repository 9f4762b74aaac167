#include "platform/queue/envelope.h"

#include <random>

#include "platform/queue/queue_backend.h"
#include "tests/support/fixture.h"

namespace dl::testing
{

TEST(List, NextStopsAtTheEndAndAddAppendsFromAnywhere)
{
    int one = 1, two = 2, three = 3;
    cList<int*> list;
    EXPECT_EQ(list.Next(), nullptr);
    EXPECT_EQ(list.cursor, nullptr);
    EXPECT_EQ(list.Add(&one), &one);
    list.Add(&two);
    EXPECT_EQ(list.Next(), nullptr);  // the cursor is at the last Add
    EXPECT_EQ(list.Next(), nullptr);
    list.cursor = nullptr;
    EXPECT_EQ(list.Next(), &one);
    list.Add(&three);  // in the middle of a walk
    list.cursor = nullptr;
    EXPECT_EQ(*list.Next() * 100 + *list.Next() * 10 + *list.Next(), 123);
    EXPECT_EQ(list.count, 3);
    list.Clear();
    EXPECT_EQ(list.head, nullptr);
    EXPECT_EQ(list.cursor, nullptr);
    list.Add(&two);
    EXPECT_EQ(list.count, 1);
    EXPECT_EQ(list.head->value, &two);
}

// Every field of an envelope in one text.
std::string Describe(const stEnvelope& envelope)
{
    std::string text = std::to_string(envelope.first) + "," + std::to_string(envelope.following);
    const auto add = [&text](std::string_view part) { text.append(" ").append(part); };
    for (auto* node = envelope.senders.head; node; node = node->next) {
        const _envFrom& from = *node->value;
        for (const std::string_view part : {from.address, from.text, from.text2, from.channel})
            add(part);
        add(std::to_string(from.flags) + "," + std::to_string(from.number));
    }
    for (auto* node = envelope.recipients.head; node; node = node->next) {
        const _envRecip& recipient = *node->value;
        for (const std::string_view part :
             {recipient.address, recipient.text, recipient.text2, recipient.channel})
            add(part);
        add(std::to_string(recipient.number));
    }
    return text;
}

TEST(EnvelopeBlob, GivesBackWhatWasPut)
{
    const std::string nul("a\0b\xff\n", 5);
    for (const std::size_t length : {0UL, 1UL, 127UL, 128UL, 16383UL, 16384UL, 100000UL}) {
        SCOPED_TRACE(length);
        const std::string text(length, 'x');
        stEnvelope envelope;
        envelope.first = -1;
        envelope.following = 0x12345678;
        ASSERT_TRUE(envelope.AddSender({text, nul, 1, -2147483647 - 1, "t2", "dlout"}));
        ASSERT_TRUE(envelope.AddSender({"second", "", 0, 0, "", ""}));
        ASSERT_TRUE(envelope.AddRecipient({text, "", 2147483647, nul, "DL"}));
        ASSERT_TRUE(envelope.AddRecipient({}));
        const auto back = DecodeEnvelope(EncodeEnvelope(envelope));
        ASSERT_TRUE(back);
        EXPECT_EQ(Describe(*back), Describe(envelope));
        EXPECT_EQ(back->recipients.count, 2);
        EXPECT_EQ(back->recipients.Next()->address, text);  // from the start
    }
    const auto empty = DecodeEnvelope(EncodeEnvelope(stEnvelope()));
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->SenderAddress(), "<>");
}

TEST(EnvelopeBlob, OneHundredThousandRecipientsAreLean)
{
    stEnvelope envelope;
    for (int i = 0; i < 100000; ++i)
        ASSERT_TRUE(envelope.AddRecipient(
            {.address =
                 envelope.Text("member" + std::to_string(100000 + i) + "@lists.example.org")}));
    const stEnvelope moved(std::move(envelope));  // texts stay where they were
    const std::string blob = EncodeEnvelope(moved);
    EXPECT_LT(blob.size(), 100000U * (30 + 10));
    const auto back = DecodeEnvelope(blob);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->recipients.count, 100000);
    EXPECT_EQ(Describe(*back), Describe(moved));
}

TEST(EnvelopeBlob, HostileBlobsAreRefused)
{
    stEnvelope envelope;
    ASSERT_TRUE(envelope.AddSender({"sender@example.org", "", 0, 0, "", "dlout"}));
    ASSERT_TRUE(envelope.AddRecipient({"one@example.org", "", 0, "", "dl"}));
    ASSERT_TRUE(envelope.AddRecipient({"two@example.org", "", 0, "", "dl"}));
    const std::string good = EncodeEnvelope(envelope);
    ASSERT_TRUE(DecodeEnvelope(good));
    const auto with = [&good](std::size_t place, const std::string& bytes) {
        return good.substr(0, place) + bytes + good.substr(place + bytes.size());
    };
    constexpr std::size_t kSenders = 9, kRecipients = 13, kFirstLength = 17;
    const struct {
        const char* name;
        std::string blob;
    } rows[] = {
        {"nothing", ""},
        {"a version only", good.substr(0, 1)},
        {"version 0", with(0, std::string(1, '\0'))},
        {"a later version", with(0, "\x02")},
        {"a byte more", good + '\0'},
        {"four billion recipients", with(kRecipients, "\xff\xff\xff\x7f")},
        {"minus one recipient", with(kRecipients, "\xff\xff\xff\xff")},
        {"fewer recipients than follow", with(kRecipients, "\x01")},
        {"one recipient too many", with(kRecipients, "\x03")},
        {"two billion senders", with(kSenders, "\xff\xff\xff\x7f")},
        {"a text beyond the end", with(kFirstLength, "\x7f")},
        {"a length without end", with(kFirstLength, "\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff")},
        {"a length that wraps", with(kFirstLength, "\xff\xff\xff\xff\x7f")},
        {"a length longer than needed", good.substr(0, kFirstLength) + "\x92" +
                                            std::string(1, '\0') + good.substr(kFirstLength + 1)},
    };
    for (const auto& row : rows)
        EXPECT_EQ(DecodeEnvelope(row.blob), nullptr) << row.name;
    for (std::size_t size = 0; size < good.size(); ++size)
        EXPECT_EQ(DecodeEnvelope(good.substr(0, size)), nullptr) << "cut at " << size;
}

TEST(EnvelopeBlob, WhatIsDecodedEncodesToTheSameBytes)
{
    stEnvelope envelope;
    ASSERT_TRUE(envelope.AddSender({"s", "", 0, 0, "", "dlout"}));
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(envelope.AddRecipient({"r@example.org", "", i, "", "dl"}));
    const std::string good = EncodeEnvelope(envelope);
    std::mt19937 random(20041109);
    int accepted = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string blob = good;
        for (unsigned long changes = 1 + random() % 3; changes > 0; --changes)
            blob[random() % blob.size()] = static_cast<char>(random());
        if (const auto back = DecodeEnvelope(blob)) {
            ++accepted;
            EXPECT_EQ(EncodeEnvelope(*back), blob);
        }
    }
    EXPECT_GT(accepted, 100);  // changes inside a text are none of the format's business
}

}  // namespace dl::testing
