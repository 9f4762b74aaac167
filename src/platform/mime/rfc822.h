// The structure of a message, as a message store keeps it: envelope (RFC 5322) and body parts (RFC
// 2045).
//
// Plain values that own their texts. Texts are from mail: unfolded, encoded words undone, otherwise
// unchecked. Nothing here throws but for lack of memory, or logs.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace dl
{

struct mail_envelope {
    std::string date;
    std::string subject;
    std::string message_id;
    std::string in_reply_to;
    std::string from;  // addresses: "name <local@host>, ..."
    std::string sender;
    std::string reply_to;
    std::string to;
    std::string cc;
    std::string bcc;
};

struct mail_body {
    std::string type;
    std::string subtype;
    std::string encoding;
    std::string id;
    std::string description;
    std::string disposition;
    std::int64_t offset = 0;  // of the raw body, bytes from the message's first
    std::int64_t size = 0;    // bytes; 0 for a part that has parts
    std::vector<mail_body> parts;
    std::unique_ptr<mail_envelope> envelope;  // of a message/rfc822 part, whose one part it heads
};

// The bytes behind a header; not owned.
struct mail_string {
    std::string_view bytes;
};

// Reads `header` (with the line end of its last line) and `body` (from the empty line on). An
// address without a host gets `host`. False, and both empty, for a message that is empty or beyond
// what memory should be spent on (see MimeParseMessage). Parts deeper than 100 are not seen.
[[nodiscard]] bool rfc822_parse_msg_full(mail_envelope* envelope, mail_body* body,
                                         std::string_view header, const mail_string& text,
                                         const std::string& host);
// Give the memory back before the value's own end.
void mail_free_envelope(mail_envelope* envelope);
void mail_free_body(mail_body* body);

}  // namespace dl
