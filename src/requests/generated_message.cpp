#include "requests/generated_message.h"

#include <cstdarg>
#include <utility>

#include "platform/log/log.h"
#include "platform/log/log_hold.h"
#include "requests/boundary.h"

namespace dl
{

GeneratedMessage::GeneratedMessage(const GeneratorKind& kind) : kind_(kind), unsent_(kind.unsent)
{
    if (!entry_ && kind_.create_failed)
        DlLog(1, "%s", kind_.create_failed);
}

GeneratedMessage::~GeneratedMessage()
{
    if (!entry_)
        return;
    file_.reset();
    switch (unsent_) {
        case Unsent::kDiscard:
            entry_.Discard();
            break;
        case Unsent::kClose:
            (void)entry_.Close();  // in no channel: nobody will see it
            break;
        case Unsent::kLeave:
            entry_.Leave();
            break;
    }
}

bool GeneratedMessage::Open()
{
    gateway_ = ReadGateway();
    date_ = MailDate();
    const std::string path = Path();
    entry_id_ = BaseName(path);
    file_.emplace(path, "wb");
    return file_->IsOpen();
}

bool GeneratedMessage::Received()
{
    return Write(ReceivedHeader(gateway_, entry_id_, date_));
}

bool GeneratedMessage::MessageId()
{
    return Print(kind_.message_id, entry_id_.c_str(), InstallationId().c_str(),
                 gateway_.host.c_str(), gateway_.domain.c_str());
}

bool GeneratedMessage::Date()
{
    return Print("Date: %s\r\n", date_.c_str());
}

bool GeneratedMessage::Print(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const bool done = file_->PrintList(format, args);
    va_end(args);
    return done;
}

std::string GeneratedMessage::Boundary(const std::vector<std::string>& enclosed) const
{
    return FreeBoundary(kind_.boundary, enclosed);
}

GeneratedMessage::Copied GeneratedMessage::CopyFile(const std::string& path, std::size_t buffer)
{
    LineReader in(path);
    if (!in.IsOpen())
        return Copied::kMissing;
    while (const auto piece = in.NextPiece(buffer - 1))
        if (!Write(*piece))
            return Copied::kFailed;
    return in.Failed() ? Copied::kUnreadable : Copied::kDone;
}

bool GeneratedMessage::CloseFile()
{
    return !file_ || file_->Close();
}

bool GeneratedMessage::Send(const std::string& sender, const std::string& recipient,
                            const std::string& channel, std::int32_t flags,
                            const std::string& recipient_channel)
{
    stEnvelope envelope;
    _envFrom from;
    from.address = sender;
    from.flags = flags;
    from.channel = channel;
    _envRecip to;
    to.address = recipient;
    to.channel = recipient_channel;
    return envelope.AddSender(from) && envelope.AddRecipient(to) && Send(channel, &envelope);
}

bool GeneratedMessage::Send(const std::string& channel, stEnvelope* envelope)
{
    if (!CloseFile() || !entry_)
        return false;
    if (!kind_.submission_is_checked) {
        // Closed whatever the steps before have answered: an entry without a channel is dropped by
        // the queue, one without an envelope held.
        (void)InsertMQChannel(entry_.get(), channel, kind_.priority);
        (void)PutMQEnvelope(entry_.get(), envelope);
        (void)entry_.Close();
        PromiseLines(nullptr);
        return true;
    }
    const Submission result = Submit(std::move(entry_), channel, kind_.priority, envelope);
    const char* line = result == Submission::kInsertFailed  ? kind_.insert_failed
                       : result == Submission::kPutFailed   ? kind_.put_failed
                       : result == Submission::kCloseFailed ? kind_.close_failed
                                                            : nullptr;
    if (line)
        DlLog(1, "%s", line);
    else
        PromiseLines(kind_.close_failed);  // what is said from here on is true with the commit
    return result == Submission::kDone;
}

}  // namespace dl
