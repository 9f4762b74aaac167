// A queue in the test's folder, and the few words in which the tests speak of it.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/queue/entry_files.h"
#include "platform/queue/queue.h"
#include "platform/queue/queue_backend.h"
#include "tests/support/fixture.h"
#include "tests/support/queued.h"

namespace dl::testing
{

class QueueFixture : public Fixture
{
 protected:
    QueueFixture() : folder(Path("queue")) {}
    ~QueueFixture() override { MQEnd(); }

    void SetUp() override { ASSERT_TRUE(MQInitAt(folder)); }

    // Fills the file of a new entry and submits it; its identifier, 0 when that failed.
    static unsigned long Put(const std::string& text, const std::string& channel = "dl")
    {
        NewMQEntry entry;
        if (!entry || !FillEntry(entry.get(), text))
            return 0;
        const unsigned long id = GetMQId(entry.get());
        stEnvelope envelope = Envelope(text + "@example.org");
        return Submit(std::move(entry), channel, 255, &envelope) == Submission::kDone ? id : 0;
    }
    // The same without an envelope.
    static unsigned long PutBare(const std::string& channel)
    {
        NewMQEntry entry;
        EXPECT_TRUE(FillEntry(entry.get(), "bare") && InsertMQChannel(entry.get(), channel, 0));
        const unsigned long id = GetMQId(entry.get());
        EXPECT_TRUE(entry.Close());
        return id;
    }
    static stEnvelope Envelope(const std::string& recipient)
    {
        stEnvelope envelope;
        EXPECT_TRUE(envelope.AddSender({.address = "owner@example.org", .channel = "dlout"}));
        EXPECT_TRUE(envelope.AddRecipient({.address = envelope.Text(recipient), .channel = "dl"}));
        return envelope;
    }

    static std::string Text(unsigned long id) { return ReadFile(GetMQPathName(id, ".msg")); }
    static std::string Text(long id) { return Text(static_cast<unsigned long>(id)); }
    // One pass: the texts of the messages in the order of their hand-out, removed or left.
    static std::vector<std::string> Pass(MQContext* channel, bool remove)
    {
        std::vector<std::string> texts;
        for (long id = GetFirstMessage(channel, false); id != kNoMessage;
             id = GetNextMessage(channel, false)) {
            if (id < 0)
                return {"failed"};
            texts.push_back(Text(id));
            if (remove && !RemoveMQChannel(channel))
                texts.emplace_back("not removed");
        }
        return texts;
    }
    static std::vector<std::string> Drain(const std::string& name)
    {
        MQContext* channel = OpenMQChannel(name);
        const std::vector<std::string> texts = Pass(channel, true);
        EXPECT_TRUE(CloseMQChannel(channel));
        return texts;
    }
    // What is in the folder of the message files.
    [[nodiscard]] std::size_t Files() const { return FileNames(folder + "/msg").size(); }

    const std::string folder;
};

using Texts = std::vector<std::string>;

}  // namespace dl::testing
