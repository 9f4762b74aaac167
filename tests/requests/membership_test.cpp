// Membership changes in the directory. That both back ends do the same is the contract suite's.

#include "requests/membership.h"

#include "lists/dllist.h"
#include "tests/support/queued.h"
#include "tests/support/site.h"

namespace dl::testing
{
namespace
{

constexpr char kPaul[] = "paul@example.org";
constexpr char kOwnerFound[] = "6 List owner is: garden-boss@example.org\n";

using Values = std::vector<std::string>;

}  // namespace

class Membership : public Site
{
 protected:
    // A site whose garden has these member values, and a request in hand.
    Incoming With(const Values& values, const std::string& attributes = "AutoSubscription: YES\n")
    {
        std::string lines = attributes;
        for (const std::string& value : values)
            lines += "listmember: " + value + "\n";
        ForgetLists();
        AddList("garden", lines);
        Start();
        Submit(kPaul, {kGardenRequest}, "Subject: x\n\nOK\n");
        const Incoming message = Take();
        log.Clear();
        return message;
    }
    int Add(const Incoming& message, const std::string& member, bool digest = false)
    {
        return AddListMember(message, member, kGarden, "dlout", digest);
    }
    int Remove(const Incoming& message, const std::string& member)
    {
        return RemoveListMember(message, member, kGarden, "dlout");
    }
};

TEST_F(Membership, AddWritesTheValueThatTheListWants)
{
    for (const auto& row : ReadTable("tables/requests.txt", "members that are added")) {
        SCOPED_TRACE(row.at(0));
        const bool digest = row.at(1) == "true";
        const Incoming message =
            With({"Immediate;bert@example.net"},
                 "AutoSubscription: YES\n" + (row.at(2) == "-" ? "" : row.at(2) + "\n"));
        EXPECT_EQ(Add(message, row.at(0), digest), 1);
        Values want = {"Immediate;bert@example.net"};
        if (!row.at(3).empty())
            want.push_back(row.at(3));
        EXPECT_EQ(Members(kGarden), want);
        const std::string shown = EscapeForLog(row.at(0).c_str());
        EXPECT_EQ(Log(), (row.at(3).empty() ? "6 Unable to add new member (" + shown +
                                                  ") to the mailing list garden@lists.example.org\n"
                                            : "6 Added " + shown +
                                                  (digest ? ", mode=Digest" : ", mode=Immediate") +
                                                  " to garden@lists.example.org\n") +
                             kOwnerFound);
        EXPECT_EQ(Brief(),
                  "garden-owner@lists.example.org -> garden-boss@example.org: subscription "
                  "confirmation to garden-request@lists.example.org (fwd)\n");
    }
}

TEST_F(Membership, AddFindsAMemberInAnyFormAndCase)
{
    for (const std::string value :
         {"Immediate;paul@example.org", "Immediate;Blocked;paul@example.org",
          "Digest;paul@example.org", "Digest;Blocked;paul@example.org",
          "IMMEDIATE;Paul@Example.Org", "digest;blocked;PAUL@EXAMPLE.ORG"}) {
        SCOPED_TRACE(value);
        const Incoming message = With({"Immediate;bert@example.net", value});
        EXPECT_EQ(Add(message, kPaul), 2);
        EXPECT_EQ(Members(kGarden), (Values{"Immediate;bert@example.net", value}));
        EXPECT_EQ(Log() + Brief(), "");
    }
    // Also when the owner decides who joins.
    EXPECT_EQ(Add(With({"Immediate;paul@example.org"}, ""), kPaul), 2);
    // Near misses.
    for (const std::string value : {"Immediate;paul@example.or", "Immediate;xpaul@example.org",
                                    "Immediate; paul@example.org", "paul@example.org"}) {
        SCOPED_TRACE(value);
        EXPECT_EQ(Add(With({value}), kPaul), 1);
        EXPECT_EQ(Members(kGarden), (Values{value, "Immediate;paul@example.org"}));
    }
}

// A reply that is handled again after a crash is answered as it would have been the first time.
TEST_F(Membership, WhoWasAddedByAnEarlierAttemptCountsAsAdded)
{
    const Incoming message = With({"Immediate;bert@example.net"});
    WritePending("0000ABCD", "subscribe garden@lists.example.org paul@example.org\r\n");
    PendingConfirmation pending{PendingPath(kGarden, 0xABCD)};
    EXPECT_EQ(AddListMember(message, kPaul, kGarden, "dlout", false, &pending), 1);
    EXPECT_TRUE(pending.begun);
    EXPECT_EQ(AddListMember(message, kPaul, kGarden, "dlout", false, &pending), 1);
    EXPECT_EQ(Members(kGarden),
              (Values{"Immediate;bert@example.net", "Immediate;paul@example.org"}));
    EXPECT_EQ(QueueItems("dlout").size(), 2U) << "the owner's copy belongs to it";
    // Who was a member before the confirmation came is one already.
    pending.begun = false;
    EXPECT_EQ(AddListMember(message, kPaul, kGarden, "dlout", false, &pending), 2);
    // Nothing is begun that cannot be noted.
    pending.path = Path("data/no-folder/0000ABCD.cnf");
    log.ExpectError("Unable to write file: " + pending.path);
    EXPECT_EQ(AddListMember(message, "anna@example.com", kGarden, "dlout", false, &pending), -1);
    EXPECT_EQ(Members(kGarden).size(), 2U);
}

TEST_F(Membership, RemoveDeletesTheFirstFormThatIsThere)
{
    struct Row {
        const char* name;
        Values before;
        Values after;
        int requests;  // delete requests to the directory
        std::string member = kPaul;
    };
    const Row rows[] = {
        {"immediate", {"Immediate;paul@example.org"}, {}, 1},
        {"digest", {"Digest;paul@example.org"}, {}, 2},
        {"immediate, blocked", {"Immediate;Blocked;paul@example.org"}, {}, 3},
        {"digest, blocked", {"Digest;Blocked;paul@example.org"}, {}, 4},
        {"in two forms",
         {"Digest;Blocked;paul@example.org", "Digest;paul@example.org"},
         {"Digest;Blocked;paul@example.org"},
         2},
        {"in other letters", {"Immediate;PAUL@Example.org"}, {}, 1},
        {"no member", {"Immediate;paula@example.org"}, {"Immediate;paula@example.org"}, 4},
        {"the null sender", {"Immediate;<>"}, {"Immediate;<>"}, 0, "<>"},

    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Values before = row.before;
        Values after = row.after;
        for (Values* values : {&before, &after})
            values->insert(values->begin(), "Immediate;bert@example.net");
        const Incoming message = With(before);
        const int calls = directory.Made(DirectoryCall::kModify);
        EXPECT_EQ(Remove(message, row.member), 0);
        EXPECT_EQ(directory.Made(DirectoryCall::kModify) - calls, row.requests);
        EXPECT_EQ(Members(kGarden), after);
        const bool removed = before.size() != after.size();
        EXPECT_EQ(Log(),
                  (removed ? "6 paul@example.org was successfully removed from mailing list: "
                             "garden@lists.example.org\n"
                           : "") +
                      std::string(kOwnerFound));
        EXPECT_EQ(Brief(),
                  "garden-owner@lists.example.org -> garden-boss@example.org: unsubscription "
                  "confirmation to garden-request@lists.example.org (fwd)\n");
    }
}

}  // namespace dl::testing
