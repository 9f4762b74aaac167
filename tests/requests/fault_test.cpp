// What each generator does when a call of the queue, the directory or the files fails under it.
//
// The tables lie in tests/data/faults. What they must show beside "-1, nothing on the channel, no
// entry left": a subscription notice counts as sent when its first two lines could not be written,
// an archive notice is closed whatever comes and always tells that it was sent, a confirmation
// request is closed after its text could not be written, an owner copy leaves its entry to the
// queue.

#include "requests/bounce.h"
#include "requests/confirmations.h"
#include "requests/membership.h"
#include "requests/notifications.h"
#include "requests/owner_copy.h"
#include "tests/support/fault_table.h"

namespace dl::testing
{
namespace
{

constexpr char kOut[] = "dlout";

}  // namespace

class GeneratorFaults : public FaultSite
{
 protected:
    GeneratorFaults() { AddUsualLists(); }
    void Table(const std::string& name, const std::string& text, int (*make)(const Incoming&))
    {
        ExpectFaults(
            name,
            [&, this] {
                Start();
                WritePending("0000ABCD", "paul@example.org:hash\r\n");
                Submit("paul@example.org", {kGardenRequest}, "Subject: x\n\n" + text + "\n");
                message_ = Take();
            },
            [&, this] { return std::to_string(make(message_)); });
    }

 private:
    Incoming message_;
};

TEST_F(GeneratorFaults, Bounce)
{
    Table("bounce", "hello",
          [](const Incoming& message) { return BounceToSender(message, "no", kOut, false); });
}

TEST_F(GeneratorFaults, OwnerCopy)
{
    Table("owner_copy", "hello", [](const Incoming& message) {
        return ForwardToOwner("garden-owner@lists.example.org", message, kOut, kForTheOwner);
    });
}

TEST_F(GeneratorFaults, SubscriptionNotice)
{
    Table("subscription_notice", "OK", [](const Incoming& message) {
        return NotifySubscription(message, "garden@lists.example.org", kOut, 1);
    });
}

TEST_F(GeneratorFaults, UnsubscriptionNotice)
{
    Table("unsubscription_notice", "OK", [](const Incoming& message) {
        return NotifyUnsubscription(message, "garden@lists.example.org", kOut, 0);
    });
}

TEST_F(GeneratorFaults, ArchiveNotice)
{
    Table("archive_notice", "OK", [](const Incoming& message) {
        return NotifyArchiveRegistration(message, "garden@lists.example.org", kOut, 0);
    });
}

TEST_F(GeneratorFaults, ConfirmationRequest)
{
    Table("confirmation_request", "subscribe", [](const Incoming& message) {
        return SendConfirmationRequest(message, "garden-request@lists.example.org", kOut,
                                       {.subscribe = true});
    });
}

TEST_F(GeneratorFaults, ArchiveConfirmationRequest)
{
    Table("archive_confirmation_request", "archive registration (0000ABCD)",
          [](const Incoming& message) {
              return SendConfirmationRequest(message, "garden-request@lists.example.org", kOut,
                                             {.archive = true});
          });
}

}  // namespace dl::testing
