#include "dispatch/message_work.h"

namespace dl
{
namespace
{

// What one commit holds: more would make those wait who are first.
constexpr std::size_t kMostMessages = 64;
constexpr std::int64_t kMostRecipients = 10'000;

}  // namespace

void MessageWork::EndPart()
{
    work_.EndPart();
    filing_.EndPart();
    lines_.EndPart();
    deeds_.emplace_back();
}

void MessageWork::DropPart()
{
    work_.DropPart();
    filing_.DropPart();
    lines_.DropPart();
    deeds_.back().clear();
}

void MessageWork::Done(std::int64_t recipients)
{
    (void)RemoveMQChannel(channel_);  // noted; it is the current message
    recipients_ += recipients;
    EndPart();
}

void MessageWork::Postpone(std::int64_t due, const std::string& problem)
{
    DropPart();
    (void)PostponeMQMessage(channel_, due, problem);  // noted, as above
    EndPart();
}

void MessageWork::Drop()
{
    DropPart();
}

bool MessageWork::Full() const
{
    return work_.Parts() >= kMostMessages || recipients_ >= kMostRecipients;
}

bool MessageWork::CommitParts(std::size_t parts)
{
    // What a folder gets must be on disk before it has its name, and has it before the commit.
    if (!work_.Prepare(parts) || !filing_.CarryOut(parts) || !work_.Commit(parts))
        return false;
    filing_.Forget(parts);
    lines_.Release(parts);
    for (; parts > 0; --parts) {
        for (const std::function<void()>& deed : deeds_.front())
            deed();
        deeds_.pop_front();
    }
    return true;
}

bool MessageWork::Commit()
{
    const std::size_t parts = work_.Parts();
    recipients_ = 0;
    if (CommitParts(parts))
        return true;
    // One of them may be at fault: the others before it need not wait for it.
    for (std::size_t i = 0; i < parts; ++i)
        if (parts == 1 || !CommitParts(1)) {
            lines_.Break();
            return false;
        }
    return true;
}

}  // namespace dl
