// What the service writes of itself and of now into the mail that it makes: host names, date,
// identifiers.
#pragma once

#include <string>

namespace dl
{

// This mail host, "Connection"/"GatewayHostName" and "GatewayDomain" of "qvms.conf", read for each
// message; either may be empty.
struct Gateway {
    std::string host;
    std::string domain;
};
[[nodiscard]] Gateway ReadGateway();

// The local time as the text of a Date header (RFC 5322, 3.3). The offset comes from the zone's
// standard one: an hour less with daylight saving in force, and then a day more when that lies more
// than twelve hours east. Main thread (localtime).
[[nodiscard]] std::string MailDate();

// The second field of every Message-ID: "DlManager"/"InstallationId" when set, else made from the
// start time and random bits; at most 63 characters, fixed for the life of the process.
[[nodiscard]] const std::string& InstallationId();

// The first line of what the service writes, a Received header with one continuation line.
[[nodiscard]] std::string ReceivedHeader(const Gateway& gateway, const std::string& entry_id,
                                         const std::string& date);

}  // namespace dl
