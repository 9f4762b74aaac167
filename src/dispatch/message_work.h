// The messages of one pass that are being handled: what each makes, its copies in folders, its log
// lines and its removal become so together, in one commit, which several messages may share.
//
// For each message: the handling, then Done, Postpone or Drop. Commit when nothing more waits, when
// Full, and around a message that is to be alone. What was not committed when the object ends is as
// if it had not been handled. Main thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "dispatch/folder_filing.h"
#include "platform/log/log_hold.h"
#include "platform/queue/work.h"

namespace dl
{

struct Incoming;

class MessageWork
{
 public:
    explicit MessageWork(MQContext* channel) : channel_(channel) {}

    [[nodiscard]] FolderFiling& Filing() { return filing_; }
    // Something that is done once the current message is committed.
    void After(std::function<void()> deed) { deeds_.back().push_back(std::move(deed)); }

    // The current message has been handled: it leaves the channel with the commit.
    void Done(std::int64_t recipients);
    // It stays, for nobody before `due`; what it made is dropped.
    void Postpone(std::int64_t due, const std::string& problem);
    // It stays; what it made is dropped.
    void Drop();

    // Enough has come together.
    [[nodiscard]] bool Full() const;
    // Commits what is done. False, and said in the log, when that failed: its messages stay, but
    // for those before the first that cannot be committed.
    [[nodiscard]] bool Commit();

 private:
    [[nodiscard]] bool CommitParts(std::size_t parts);
    void EndPart();
    void DropPart();

    MQContext* channel_;
    MQWork work_;
    FolderFiling filing_;
    LogHold lines_;
    std::deque<std::vector<std::function<void()>>> deeds_ =
        std::deque<std::vector<std::function<void()>>>(1);
    std::int64_t recipients_ = 0;  // of what waits for the commit
};

// What the steps of handling one message have in common.
struct Handling {
    const Incoming& message;
    const std::string& output;  // the channel for what they make
    MessageWork& work;
};

}  // namespace dl
