// Messages that a test puts into the queue, and what waits there.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/queue/queue.h"

namespace dl::testing
{

inline bool FillEntry(const MQContext* entry, const std::string& text)
{
    std::FILE* file = std::fopen(GetMQPathName(entry, ".msg").c_str(), "wb");
    const bool written = file && std::fwrite(text.data(), 1, text.size(), file) == text.size();
    return file && std::fclose(file) == 0 && written;
}

// Submits a message to `channel`; its identifier. A recipient may be "<address>|<channel>".
inline unsigned long PutEntry(const std::string& text, const std::string& channel,
                              const std::string& sender, const std::vector<std::string>& recipients)
{
    NewMQEntry entry;
    const unsigned long id = GetMQId(entry.get());
    EXPECT_TRUE(FillEntry(entry.get(), text));
    stEnvelope envelope;
    EXPECT_TRUE(envelope.AddSender({.address = sender, .channel = channel}));
    for (const std::string_view recipient : recipients) {
        const std::size_t bar = recipient.find('|');
        EXPECT_TRUE(envelope.AddRecipient(
            {.address = recipient.substr(0, bar),
             .channel = bar == recipient.npos ? channel : recipient.substr(bar + 1)}));
    }
    EXPECT_EQ(Submit(std::move(entry), channel, 255, &envelope), Submission::kDone);
    return id;
}

// `count` addresses in seven domains, each "<prefix><number>@...".
inline std::vector<std::string> Addresses(int count, const std::string& prefix = "m")
{
    std::vector<std::string> addresses;
    addresses.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        addresses.push_back(prefix + std::to_string(i) + "@d" + std::to_string(i % 7) +
                            ".example.org");
    return addresses;
}

// All items of a channel; "": of all channels.
inline std::vector<QueueItem> QueueItems(const std::string& channel = "")
{
    std::vector<QueueItem> items;
    EXPECT_TRUE(ListMQ(channel, 0, &items));
    return items;
}

}  // namespace dl::testing
