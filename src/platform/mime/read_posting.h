// A posting as its readers see it: headers decoded to UTF-8, the text of its body, what is
// attached.
//
// Made for pages and listings, so it never gives up on a message that can be opened at all: broken
// encodings, unknown charsets and missing headers become the nearest readable text. All text is
// valid UTF-8 but otherwise the sender's, control characters and markup included: whoever shows it
// escapes it. Everything is bounded, whatever the message holds. One thread per object.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/files/files.h"

namespace dl
{

struct PostingMailbox {
    std::string name;     // decoded display name, may be empty
    std::string address;  // may be empty
};

struct PostingText {
    std::string text;        // lines end with "\n"; format=flowed paragraphs are joined
    bool from_html = false;  // made from an HTML body
    bool cut = false;        // the rest is in an attachment
};

struct PostingAttachment {
    std::string name;  // as the sender named it, may be anything or empty
    std::string type;  // "image/png", lower case
};

struct Posting {
    static constexpr std::size_t kMaxReferences = 50;
    static constexpr std::size_t kMaxRecipients = 20;
    static constexpr std::size_t kMaxTexts = 50;
    static constexpr std::size_t kMaxTextBytes = 1 << 20;  // of one text
    static constexpr std::size_t kMaxAttachments = 200;

    std::string message_id;               // without angle brackets; may be empty
    std::string identity;                 // 64 hexadecimal digits made from the Message-ID, or from
                                          // sender, date, subject and text when there is none
    std::vector<std::string> references;  // References, then In-Reply-To; the nearest first
    std::string subject;
    PostingMailbox from;
    std::vector<PostingMailbox> to;
    std::vector<PostingMailbox> cc;
    std::size_t more_recipients = 0;   // that `to` and `cc` leave out
    std::optional<std::int64_t> date;  // Date, else the last Received; seconds since 1970 UTC
    int zone_minutes = 0;              // of `date`, east of UTC
    std::vector<PostingText> texts;
    std::vector<PostingAttachment> attachments;
    std::size_t more_parts = 0;  // that `texts` and `attachments` leave out
};

class PostingFile
{
 public:
    // Null when the file cannot be read, in all its parts that are wanted, or holds no message.
    // Faults of the machine are noted (files/machine_fault.h), here and below.
    [[nodiscard]] static std::unique_ptr<PostingFile> Read(const std::string& path);
    ~PostingFile();

    [[nodiscard]] const Posting& Get() const { return posting_; }
    // Writes the decoded body of attachment `index`. False when it could not be read or written.
    [[nodiscard]] bool WriteAttachment(std::size_t index, FileWriter* out) const;

 private:
    struct Parts;
    PostingFile();
    Posting posting_;
    std::unique_ptr<Parts> parts_;
};

// SHA-256 as 64 lower-case hexadecimal digits.
[[nodiscard]] std::string Sha256Hex(std::string_view bytes);

}  // namespace dl
