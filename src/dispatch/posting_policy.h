// Who may post: facts in, decision out. No look-up, no log line, no queue.
#pragma once

namespace dl
{

// What is done with a refused posting; none of the two is a discard.
struct Refusal {
    bool bounce = false;   // tell the sender
    bool forward = false;  // show it to the owner

    [[nodiscard]] bool IsDiscard() const { return !bounce && !forward; }
};

// By the list's invalid-posting handling: 0 discard, 1 bounce, 2 forward, 3 both.
[[nodiscard]] Refusal RefusalByHandling(int handling);

enum class Admission {
    kDeliver,
    kRefuse,    // a closed list and no member
    kForOwner,  // the list is not usable: its owner's problem
};

// By the list's mode (0 open, 1 closed). Blocked members are refused before: the content scan
// stands between the two and must not run for them.
[[nodiscard]] Admission AdmitByMode(int mode, bool member);

}  // namespace dl
