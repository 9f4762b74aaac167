// One message that the service writes itself, from the new queue entry to its submission.
//
// A kind of message states its choices in a GeneratorKind, makes a GeneratedMessage, writes headers
// and body in its own order, and calls Send. Writes are checked and sticky: after a failed one all
// fail, and the destructor ends the entry as the kind says. An address goes into a header through
// OneLine. No line is logged but those of the kind. Headers: RFC 5322; boundaries: RFC 2046, 5.1.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/files.h"
#include "platform/queue/queue.h"
#include "requests/mail_identity.h"

namespace dl
{

// What becomes of an entry that is not sent.
enum class Unsent {
    kDiscard,  // thrown away
    kClose,    // closed without a channel: the queue clears it away
    kLeave,    // left to the queue, which sweeps it
};

struct GeneratorKind {
    const char* create_failed = nullptr;  // level 1 lines; null: none
    const char* insert_failed = nullptr;
    const char* put_failed = nullptr;
    const char* close_failed = nullptr;
    const char* boundary = nullptr;  // format of the boundary, with the time in seconds
    const char* message_id = "Message-ID: <%s.%s@%s.%s>\r\n";  // that header's spelling
    int priority = 0;                                          // third argument of InsertMQChannel
    Unsent unsent = Unsent::kDiscard;                          // after a failed open or write
    // False: Send makes every step of the submission and succeeds whatever the queue says.
    bool submission_is_checked = true;
};

class GeneratedMessage
{
 public:
    // Makes the entry. IsMade() false: the queue gave none, and the kind's line is logged.
    explicit GeneratedMessage(const GeneratorKind& kind);
    ~GeneratedMessage();
    GeneratedMessage(const GeneratedMessage&) = delete;
    GeneratedMessage& operator=(const GeneratedMessage&) = delete;

    [[nodiscard]] bool IsMade() const { return static_cast<bool>(entry_); }
    // Creates the message file and takes date, host names and identifiers.
    [[nodiscard]] bool Open();
    [[nodiscard]] const std::string& EntryId() const { return entry_id_; }
    [[nodiscard]] const Gateway& Host() const { return gateway_; }
    [[nodiscard]] std::string Path() const { return GetMQPathName(entry_.get(), ".msg"); }
    [[nodiscard]] MQContext* Entry() const { return entry_.get(); }

    // What becomes of the entry when it is not sent, from here on.
    void SetUnsent(Unsent unsent) { unsent_ = unsent; }

    [[nodiscard]] bool Received();
    [[nodiscard]] bool MessageId();
    [[nodiscard]] bool Date();
    [[nodiscard]] bool Print(const char* format, ...) __attribute__((format(printf, 2, 3)));
    [[nodiscard]] bool Write(std::string_view bytes) { return file_->Write(bytes); }
    // Bytes written so far, and whether they end a line.
    [[nodiscard]] std::int64_t Written() const { return file_->Written(); }
    [[nodiscard]] bool EndsLine() const { return file_->EndsLine(); }
    // A boundary that occurs in none of the files which it is to enclose, from the kind's format.
    [[nodiscard]] std::string Boundary(const std::vector<std::string>& enclosed) const;
    // Copies the file in pieces of at most `buffer` - 1 bytes, each written unchanged. kMissing: it
    // cannot be opened, and nothing was written; kUnreadable: reading it broke off; kFailed: a
    // write failed.
    enum class Copied { kDone, kMissing, kUnreadable, kFailed };
    [[nodiscard]] Copied CopyFile(const std::string& path, std::size_t buffer);

    // Closes the file; false when not everything reached it. Send does it when it has not been
    // done.
    [[nodiscard]] bool CloseFile();
    // Submits to one recipient. `recipient_channel` is the channel field of the recipient element.
    [[nodiscard]] bool Send(const std::string& sender, const std::string& recipient,
                            const std::string& channel, std::int32_t flags = 0,
                            const std::string& recipient_channel = "");
    // Submits with an envelope of the caller's.
    [[nodiscard]] bool Send(const std::string& channel, stEnvelope* envelope);

 private:
    const GeneratorKind& kind_;
    NewMQEntry entry_;
    Unsent unsent_;
    std::optional<FileWriter> file_;
    Gateway gateway_;
    std::string date_;
    std::string entry_id_;
};

}  // namespace dl
