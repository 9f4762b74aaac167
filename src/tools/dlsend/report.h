// The delivery status report of one entry (RFC 3464), for whoever sent it.
//
// Whatever stands in it from mail or from the relay is one line without control characters. A
// report goes to the envelope sender and has none itself.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/queue/queue.h"

namespace dl
{

struct FailedRecipient {
    std::string_view address;
    std::string_view answer;  // the relay's last one, may be empty
    bool given_up = false;    // no answer for good came in time
};
// Calls `visit` for each failed recipient, in the same order each time; stops and gives false when
// `visit` does, or when they cannot be read.
using EachFailed = std::function<bool(const std::function<bool(const FailedRecipient&)>& visit)>;

struct ReportFacts {
    unsigned long id = 0;
    std::string sender;  // to whom it goes
    std::int64_t arrived = 0;
    std::string message_path;
    std::string host_name;   // this host
    std::string relay_host;  // empty: not known by a name
};

// Whether `sender` can be told anything: not the null reverse-path, and an address.
[[nodiscard]] bool CanBeTold(const std::string& sender);
// Whether the message file is, or carries near its beginning, a report of this program's.
[[nodiscard]] bool CarriesReport(const std::string& message_path);

// Writes the message of the new entry. False when that failed.
[[nodiscard]] bool WriteReport(const MQContext* entry, const ReportFacts& facts,
                               const EachFailed& failed);
// Fills the envelope with which it goes into channel `channel`.
[[nodiscard]] bool AddressReport(stEnvelope* envelope, const std::string& sender,
                                 const std::string& channel);

}  // namespace dl
