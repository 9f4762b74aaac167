// What one pass of the dispatcher leaves when a call of the queue, the directory or the files fails
// under it, and what the next pass makes of that.
//
// The tables lie in tests/data/faults. A stop leaves the message on its channel and logs its place;
// what concerns one message only is answered and does not stop.

#include "tests/support/fault_table.h"

namespace dl::testing
{

struct FaultyDialogue {
    const char *name, *sender, *to, *text;
    const char* pending = "";
};

class DialogueFaults : public FaultSite, public ::testing::WithParamInterface<FaultyDialogue>
{
 protected:
    DialogueFaults()
    {
        AddUsualLists();
        AddList("legal", "listmember: Immediate;anna@example.com\ndisclaimertxtpath: " +
                             Write("disclaimer.txt", "The small print.\n") + "\n");
    }
};

TEST_P(DialogueFaults, HaveTheirOutcomes)
{
    const FaultyDialogue& it = GetParam();
    const std::string to = std::string(it.to) + "@lists.example.org";
    ExpectPassFaults(it.name, [&, this] {
        Start();
        if (*it.pending)
            WritePending("0000ABCD", it.pending + std::string("\r\n"),
                         to.starts_with("board") ? kBoard : kGarden);
        Submit(it.sender, {to}, "Subject: " + std::string(it.text) + "\n");
    });
}

constexpr char kPaul[] = "paul@example.org";
constexpr char kAnnaMail[] = "anna@example.com";

INSTANTIATE_TEST_SUITE_P(Of, DialogueFaults,
                         ::testing::ValuesIn({
                             FaultyDialogue{"posting", kPaul, "legal", "x\n\nhello"},
                             {"closed_posting", kPaul, "board", "x\n\nhello"},
                             {"blocked_posting", "trader@example.net", "garden", "x\n\nhello"},
                             {"owner_mail", kPaul, "garden-owner", "x\n\nhello"},
                             {"unknown_address", kPaul, "nobody", "x\n\nhello"},
                             {"unknown_command", kPaul, "garden-request", "x\n\nhello"},
                             {"subscription", kPaul, "garden-request", "x\n\nsubscribe"},
                             {"subscription_confirmed", kPaul, "garden-request",
                              "subscription confirmation request (0000ABCD)\n\nOK",
                              "subscribe garden@lists.example.org paul@example.org"},
                             {"subscription_to_owner", kPaul, "club-request", "x\n\nsubscribe"},
                             {"unsubscription_confirmed", kAnnaMail, "garden-request",
                              "unsubscription confirmation request (0000ABCD)\n\nOK",
                              "unsubscribe garden@lists.example.org anna@example.com"},
                             {"archive_confirmed", kAnnaMail, "board-request",
                              "archive authentication confirmation request (0000ABCD)\n\nOK",
                              "anna@example.com:hash"},
                         }),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace dl::testing
