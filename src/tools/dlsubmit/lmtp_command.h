// The command lines of LMTP (RFC 2033, with the syntax of RFC 5321, 4.1): what a line asks for, and
// what stands in the argument of MAIL and RCPT.
//
// Pure functions on one line without its line end. Views point into that line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace dl
{

struct LmtpCommand {
    enum class Verb {
        kLhlo,
        kHello,  // HELO and EHLO, which are another protocol's
        kMail,
        kRcpt,
        kData,
        kRset,
        kNoop,
        kVrfy,
        kHelp,
        kQuit,
        kNotOffered,  // a command of SMTP that this server does not have
        kUnknown,
    };
    Verb verb = Verb::kUnknown;
    std::string_view argument;  // without the blanks around it
};

[[nodiscard]] LmtpCommand ParseLmtpCommand(std::string_view line);

// The argument "FROM:<path> parameters" or "TO:<path> parameters".
struct LmtpPath {
    bool well_formed = false;
    std::string address;  // without angle brackets and source route; empty: the null path
    std::string_view parameters;
};
// `keyword` is "FROM:" or "TO:". The address itself is not looked at.
[[nodiscard]] LmtpPath ParseLmtpPath(std::string_view argument, std::string_view keyword);

// The parameters of MAIL: SIZE (RFC 1870), BODY (RFC 6152), SMTPUTF8 (RFC 6531).
struct MailParameters {
    enum class State { kGood, kBadValue, kUnknown } state = State::kGood;
    std::uint64_t size = 0;  // 0: not told
};
[[nodiscard]] MailParameters ParseMailParameters(std::string_view parameters);

}  // namespace dl
