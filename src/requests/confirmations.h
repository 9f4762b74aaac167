// Confirmation requests: a request that must be confirmed waits in a pending file until its sender
// answers "OK".
//
// The pending file is "<data path>/<list>/<id as %08X>.cnf" and holds one line, and a second one
// once its change has begun. Its id stands in the subject of the request that is mailed, and of the
// reply. A reply confirms only when id, list, sender and kind all fit the file's line; nothing else
// is read or removed. Files that nobody confirms are removed after "DlManager"/"CNFTimeOut" days.
// Main thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "requests/incoming.h"

namespace dl
{

struct ConfirmationKind {
    bool subscribe = false;  // false: unsubscription
    bool digest = false;
    bool archive = false;  // an archive registration; the other two are ignored
};

// Writes the pending file (an archive registration's exists already), mails the confirmation
// request to the requester and a copy of `message` to the owner. `request_address` is the list's
// request address as the message came to it. 0 when the request was sent, -1 when not, also
// when the directory did not say who the owner is (dllist::LookUpFailed); a pending file whose
// request could not be sent stays until it expires.
int SendConfirmationRequest(const Incoming& message, const std::string& request_address,
                            const std::string& channel, const ConfirmationKind& kind);

// A pending file that was confirmed. It stays until what it asks for has been done, so that a reply
// that is handled again, after a crash, is carried out to its end.
struct PendingConfirmation {
    std::string path;
    bool begun = false;  // the change was begun by an earlier attempt

    // Notes durably that the change begins. False when the file cannot be written.
    [[nodiscard]] bool Begin();
    // The change is made and answered: removes the file; what fails is logged.
    void End() const;
};

struct ConfirmationReply {
    bool confirmed = false;
    ConfirmationKind kind;
    PendingConfirmation pending;
};
// Whether the message, from `sender` to `request_address`, confirms a pending file. A confirmed
// archive registration has been handed to the archive; a failure of that is logged and still counts
// as confirmed.
[[nodiscard]] ConfirmationReply ProcessConfirmationReply(const Incoming& message,
                                                         const std::string& sender,
                                                         const std::string& request_address);

// Removes the pending files of all lists that are older than the limit; ends at the first list
// without a folder.
void ExpireConfirmations();

// The data folder of a list; empty when the list's name cannot be the name of a folder.
[[nodiscard]] std::string ListFolder(const std::string& list);
// The pending file's path; empty as above.
[[nodiscard]] std::string PendingPath(const std::string& list, std::uint32_t id);

// What a reply's subject asks to confirm: the phrase of a confirmation request, in any case and
// behind any prefix, then "(xxxxxxxx)" with eight hexadecimal digits. For one header line.
struct ConfirmationSubject {
    bool found = false;
    enum class Kind { kSubscription, kUnsubscription, kArchive } kind = Kind::kSubscription;
    std::uint32_t id = 0;
};
[[nodiscard]] ConfirmationSubject ReadConfirmationSubject(std::string_view header_line);
// Whether a body line says OK: after blanks and tabs, "ok" in any case, then a blank, a tab or the
// line's end.
[[nodiscard]] bool SaysOk(std::string_view line);

}  // namespace dl
