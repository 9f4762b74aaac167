// The marks that the gateway's pre-processors left in a message's header, and what is to be done
// about them.
//
// Facts are read from the file, the decision is a function of them, the list's settings and the
// server's defaults.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "antispam/antispam_config.h"
#include "antispam/rbl_defaults.h"

namespace dl
{

struct SpamMarks {
    bool readable = false;  // false: the message file cannot be read
    bool marked = false;    // "X-Spam-Status: YES", or the marker in the subject
    std::optional<std::string>
        blacklists;  // rest of the last "X-kvtbl: " line, without its line end

    [[nodiscard]] bool Any() const { return marked || blacklists.has_value(); }
};

// Reads the header up to its first empty line (CRLF). `marker` is what a rewritten subject holds;
// none when empty.
[[nodiscard]] SpamMarks ReadSpamMarks(const std::string& path, const std::string& marker);

// The subject marker of the plug-in's setting "Action-<local name>", else "Action-global", of
// section "SpamAssassin" of "qvmta.ini": the text after the comma of "ChangeSubject,<text>"; empty
// when there is none.
[[nodiscard]] std::string SubjectMarker(const std::string& local_name);

// The names before the '/' of a line's rest; none without a '/'.
[[nodiscard]] std::vector<std::string> BlacklistHosts(const std::string& blacklists);

struct SpamDecision {
    bool white_listed_ip = false;
    bool unknown = false;  // what decides could not be loaded from the directory
    int action = kSpamIgnore;
    std::string folder;  // of kSpamFile
    std::string reason;  // of kSpamBounce
};
// For marks of which there is at least one. The last blacklist host decides.
[[nodiscard]] SpamDecision DecideOnSpam(const SpamMarks& marks, const AntiSpamConfig& settings,
                                        const RblDefaults& defaults);

}  // namespace dl
