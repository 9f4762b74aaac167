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
constexpr char kList[] = "garden@lists.example.org";
constexpr char kRequest[] = "garden-request@lists.example.org";

struct Generator {
    const char *name, *text;
    int (*make)(const Incoming&);
};

const Generator kGenerators[] = {
    {"bounce", "hello",
     [](const Incoming& mail) { return BounceToSender(mail, "no", kOut, false); }},
    {"owner_copy", "hello",
     [](const Incoming& mail) {
         return ForwardToOwner("garden-owner@lists.example.org", mail, kOut, kForTheOwner);
     }},
    {"subscription_notice", "OK",
     [](const Incoming& mail) { return NotifySubscription(mail, kList, kOut, 1); }},
    {"unsubscription_notice", "OK",
     [](const Incoming& mail) { return NotifyUnsubscription(mail, kList, kOut, 0); }},
    {"archive_notice", "OK",
     [](const Incoming& mail) { return NotifyArchiveRegistration(mail, kList, kOut, 0); }},
    {"confirmation_request", "subscribe",
     [](const Incoming& mail) {
         return SendConfirmationRequest(mail, kRequest, kOut, {.subscribe = true});
     }},
    {"archive_confirmation_request", "archive registration (0000ABCD)",
     [](const Incoming& mail) {
         return SendConfirmationRequest(mail, kRequest, kOut, {.archive = true});
     }},
};

class GeneratorFaults : public FaultSite, public ::testing::WithParamInterface<Generator>
{
};

TEST_P(GeneratorFaults, HaveTheirOutcomes)
{
    const Generator& it = GetParam();
    AddUsualLists();
    Incoming message;
    ExpectFaults(
        it.name,
        [&, this] {
            Start();
            WritePending("0000ABCD", "paul@example.org:hash\r\n");
            Submit("paul@example.org", {kGardenRequest},
                   "Subject: x\n\n" + std::string(it.text) + "\n");
            message = Take();
        },
        [&] { return std::to_string(it.make(message)); });
}

INSTANTIATE_TEST_SUITE_P(Of, GeneratorFaults, ::testing::ValuesIn(kGenerators),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace dl::testing
