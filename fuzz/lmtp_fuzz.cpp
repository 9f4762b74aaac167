// A client of the intake that sends any bytes, in pieces of any size. The session must end or go
// on, keep its memory within bounds, give back what it counts, and store no text but as the
// protocol has it: lines that end in CRLF, with no CR or LF elsewhere.
//
//     build/fuzz/bin/lmtp_fuzz CORPUS
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tools/dlsubmit/lmtp_session.h"

namespace
{

void Check(bool good)
{
    if (!good)
        std::abort();
}

// Owner of one session: does what events ask for and looks at what they bring.
class Owner
{
 public:
    explicit Owner(std::uint8_t choice) : choice_(choice)
    {
        limits_.host = "h";
        limits_.max_message_bytes = 300;
        limits_.max_recipients = 4;
        limits_.max_recipient_bytes = 100;
    }
    ~Owner() { Check(used_ == 0); }

    void Run(const std::uint8_t* data, std::size_t size)
    {
        dl::LmtpSession session(&limits_, &used_);
        const char* bytes = reinterpret_cast<const char*>(data);
        while (size > 0 && !closed_) {
            std::size_t piece = 1 + (choice_ & 0x3F) * 7U;
            piece = piece < size ? piece : size;
            session.Receive({bytes, piece});
            bytes += piece;
            size -= piece;
            Handle(&session);
            Check(used_ <= 200 && session.Recipients().Size() <= 4);
            Check(closed_ || session.Buffered() <= 4096);
            session.Output().clear();
        }
        session.End("421 4.3.2 End");
        Check(session.Next() != dl::LmtpSession::Event::kMore);
    }

 private:
    void Handle(dl::LmtpSession* session)
    {
        for (;;) {
            switch (session->Next()) {
                case dl::LmtpSession::Event::kMore:
                    return;
                case dl::LmtpSession::Event::kBegin:
                    Check(!in_text_ && session->Recipients().Size() > 0);
                    text_.clear();
                    in_text_ = (choice_ & 0x40) == 0;
                    in_text_ ? session->Begin() : session->Refuse(dl::LmtpOutcome::kFailed);
                    break;
                case dl::LmtpSession::Event::kText:
                    Check(in_text_);
                    text_ += session->Text();
                    break;
                case dl::LmtpSession::Event::kDiscard:
                    Check(in_text_);
                    in_text_ = false;
                    break;
                case dl::LmtpSession::Event::kEnd:
                    Check(in_text_ && text_.size() <= 300);
                    CheckText();
                    in_text_ = false;
                    session->Finish(
                        choice_ & 0x80 ? dl::LmtpOutcome::kFailed : dl::LmtpOutcome::kStored, 1);
                    break;
                case dl::LmtpSession::Event::kRefused:
                    break;
                case dl::LmtpSession::Event::kClose:
                    closed_ = true;
                    return;
            }
        }
    }
    void CheckText() const
    {
        Check(text_.empty() || text_.ends_with("\r\n"));
        for (std::size_t i = 0; i < text_.size(); ++i)
            Check(text_[i] == '\r' ? text_[i + 1] == '\n'
                                   : text_[i] != '\n' || (i > 0 && text_[i - 1] == '\r'));
    }

    const std::uint8_t choice_;
    dl::LmtpLimits limits_;
    std::size_t used_ = 0;
    std::string text_;
    bool in_text_ = false;
    bool closed_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    Owner owner(data[0]);
    owner.Run(data + 1, size - 1);
    return 0;
}
