// What one pass of the dispatcher leaves when a call of the queue, the directory or the files fails
// under it, and what the next pass makes of that.
//
// The tables lie in tests/data/faults. A stop leaves the message on its channel and logs its place;
// what concerns one message only is answered and does not stop.

#include "tests/support/fault_table.h"

namespace dl::testing
{

class DialogueFaults : public FaultSite
{
 protected:
    DialogueFaults()
    {
        AddUsualLists();
        AddList("legal", "listmember: Immediate;anna@example.com\ndisclaimertxtpath: " +
                             Write("disclaimer.txt", "The small print.\n") + "\n");
    }
    void Table(const std::string& name, const std::string& sender, const std::string& to,
               const std::string& text, const std::string& pending = "")
    {
        ExpectPassFaults(name, [&, this] {
            Start();
            if (!pending.empty())
                WritePending("0000ABCD", pending + "\r\n",
                             to.rfind("board", 0) == 0 ? kBoard : kGarden);
            Submit(sender, {to}, "Subject: " + text + "\n");
        });
    }
};

TEST_F(DialogueFaults, Posting)
{
    Table("posting", "paul@example.org", "legal@lists.example.org", "x\n\nhello");
}

TEST_F(DialogueFaults, PostingToAClosedList)
{
    Table("closed_posting", "paul@example.org", kBoard, "x\n\nhello");
}

TEST_F(DialogueFaults, PostingOfABlockedMember)
{
    Table("blocked_posting", "trader@example.net", kGarden, "x\n\nhello");
}

TEST_F(DialogueFaults, OwnerMail)
{
    Table("owner_mail", "paul@example.org", "garden-owner@lists.example.org", "x\n\nhello");
}

TEST_F(DialogueFaults, UnknownAddress)
{
    Table("unknown_address", "paul@example.org", "nobody@lists.example.org", "x\n\nhello");
}

TEST_F(DialogueFaults, UnknownCommand)
{
    Table("unknown_command", "paul@example.org", kGardenRequest, "x\n\nhello");
}

TEST_F(DialogueFaults, Subscription)
{
    Table("subscription", "paul@example.org", kGardenRequest, "x\n\nsubscribe");
}

TEST_F(DialogueFaults, SubscriptionConfirmed)
{
    Table("subscription_confirmed", "paul@example.org", kGardenRequest,
          "subscription confirmation request (0000ABCD)\n\nOK",
          "subscribe garden@lists.example.org paul@example.org");
}

TEST_F(DialogueFaults, SubscriptionThatTheOwnerDecides)
{
    Table("subscription_to_owner", "paul@example.org", "club-request@lists.example.org",
          "x\n\nsubscribe");
}

TEST_F(DialogueFaults, UnsubscriptionConfirmed)
{
    Table("unsubscription_confirmed", "anna@example.com", kGardenRequest,
          "unsubscription confirmation request (0000ABCD)\n\nOK",
          "unsubscribe garden@lists.example.org anna@example.com");
}

TEST_F(DialogueFaults, ArchiveRegistrationConfirmed)
{
    Table("archive_confirmed", "anna@example.com", "board-request@lists.example.org",
          "archive authentication confirmation request (0000ABCD)\n\nOK", "anna@example.com:hash");
}

}  // namespace dl::testing
