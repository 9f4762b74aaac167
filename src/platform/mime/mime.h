// MIME messages (RFC 2045 to 2049): parsed by GMime, changed only by splicing bytes at its offsets.
//
// MimeParseMessage gives a message to be freed by MimeFreeMessage (its destructor); parts live as
// long as their message. AutoInsertForDL puts a list's disclaimers into a queued message. Nothing
// here throws; what cannot be read is a negative result or null, never a shorter text. Faults of
// the machine are noted (files/machine_fault.h). One thread per message.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace dl
{

class MimePart;
class MimeMessage;

struct MimeMessageDeleter {
    void operator()(MimeMessage* message) const;
};
using MimeMessagePtr = std::unique_ptr<MimeMessage, MimeMessageDeleter>;

// 0, or negative when the file cannot be opened or read, is empty, or has more header fields, parts
// or delimiter lines than memory and time should be spent on. `mode` is 1 in every call. Parts
// nested deeper than 100 are not seen; header fields are read up to bounds (bounded_view.h).
[[nodiscard]] int MimeParseMessage(const std::string& path, int mode, MimeMessagePtr* message);
// The top-level part (`index` 0); null when there is none.
[[nodiscard]] const MimePart* MimeGetMsg(const MimeMessage* message, int index);
// 1.0 for a MIME message, 0 without a MIME-Version header; a sub-part has its message's version.
[[nodiscard]] double MimeGetVersion(const MimePart* part);
// Type and subtype as written in the message; null when the part has no Content-Type header.
[[nodiscard]] const char* MimeGetContentType(const MimePart* part);
[[nodiscard]] const char* MimeGetContentSubtype(const MimePart* part);
[[nodiscard]] std::uint16_t MimeGetPartCount(const MimePart* part);
[[nodiscard]] const MimePart* MimeGetPart(const MimePart* part, std::uint16_t index);
// A new temporary file with the part's body, its transfer encoding undone; of a multipart or
// message part the raw body. Empty when it cannot be made. The caller hands the name to
// MimeFreeFile, which deletes the file. `from` and `length` (0, -1: all) are bytes.
[[nodiscard]] std::string MimeGetBody(const MimePart* part, std::int64_t from, std::int64_t length);
void MimeFreeFile(std::string* file);
void MimeFreeMessage(MimeMessagePtr message);

// A date as the service hands it to UTC2rfc.
struct DateRecord {
    std::int32_t year = 0;   // four digits
    std::int32_t month = 0;  // 1 to 12
    std::int32_t day = 0;
    std::int32_t hour = 0;
    std::int32_t minute = 0;
    std::int32_t second = 0;
    std::int32_t reserved = 0;      // always 0
    std::int32_t zone_minutes = 0;  // east of UTC
    std::int32_t form = 3;          // always 3
};
// The text of a Date header (RFC 5322, 3.3), "Sat, 21 Nov 2026 07:05:09 +0100".
[[nodiscard]] std::string UTC2rfc(const DateRecord& date);

// Starts and stops the library; main thread.
void InitKVTDll(const char* module);
void TerminateKVTDll();

// Puts the text of `text_file` (UTF-8) at the end of the text/plain body parts of the message file
// `path`, and that of `html_file` before </body> of the text/html ones; an empty name means none.
// Signed, encrypted, attached and message/rfc822 parts, all other headers and all other bytes stay
// as they are. A message that cannot be changed safely stays unchanged, with a level 6 line that
// says why; so does a text part that would make us hold more than 3 MB. A disclaimer file that
// cannot be read, is not UTF-8 or is larger than 1 MB is left out, with a level 1 line. True when
// the message file is whole, changed or not; false when reading or writing it failed and the old
// content stands (logged at level 1). Nothing is synced: closing the queue entry does that.
bool InsertDisclaimers(const std::string& path, const std::string& text_file,
                       const std::string& html_file);
// The same for the message file of queue entry `id`.
bool AutoInsertForDL(unsigned long id, const std::string& text_file, const std::string& html_file);

}  // namespace dl
