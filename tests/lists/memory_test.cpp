// Memory that runs out anywhere while lists are read.

#include <functional>

#include "tests/lists/failing_new.h"
#include "tests/lists/lists_fixture.h"
#include "tests/support/slapd.h"

namespace dl::testing
{
namespace
{

constexpr char kTeam[] = "team@example.org";

// Entries that both back ends take.
std::string Entry(const std::string& list, const std::string& attributes)
{
    return "dn: mail=" + list + ",dc=example,dc=org\nobjectClass: qvlist\nmail: " + list + "\n" +
           attributes + "\n";
}

// What takes the place of the file whose lists a cache holds: another one, a server, or the same
// file with other stamps, so that a refresh reads what has changed.
enum class Then { kFile, kServer, kStamps };

class ShortMemory : public ListsFixture, public ::testing::WithParamInterface<Then>
{
 protected:
    void SetUp() override
    {
        if (GetParam() == Then::kServer)
            DL_NEED_SLAPD();
        directory.stamps_entries = GetParam() == Then::kStamps;
        std::string same;
        for (const char* list : {"x@example.org", "y@example.org", "z@example.org"})
            same += Entry(list, directory.stamps_entries ? "entryCSN: 1\n" : "");
        before_ = Slapd::BaseEntries() + same +
                  Entry(kTeam, "listmember: Immediate;ann@example.com\nmode: 1\n") +
                  Entry("old@example.org", "listmember: Digest;bob@example.com\n");
        const std::string entries =
            same +
            Entry(kTeam,
                  "listmember: Immediate;ann@example.com\n"
                  "listmember: Digest;Blocked;a-longer-address@example.com\n"
                  "x-whitelist: *@example.net\nx-spamaction: bounce,we do not want this\n"
                  "x-kvtblaction: rbl.example.net,bounce,you are listed\n") +
            Entry("new@example.org", "subtxtpath: /srv/texts/a-subscription.txt\n") +
            "dn: mail=team-owner@example.org,dc=example,dc=org\nobjectClass: qvlistowner\n"
            "mail: team-owner@example.org\nlistowner: the-owner-of-it@example.com\n\n";
        after_ = Slapd::BaseEntries() + entries;
        if (GetParam() != Then::kServer)
            return;
        server_ = std::make_unique<Slapd>(Path("slapd"), entries);
        ASSERT_TRUE(server_->Up()) << server_->Reason();
    }
    void PutBefore()
    {
        Configure("[Ldap]\nFile = directory.ldif\n");
        Directory(before_);
    }
    void PutAfter()
    {
        if (server_)
            Configure(server_->Settings());
        else
            Directory(after_);
    }

    // Does `deed` with ever later allocations failing, until none is left to fail: one, or all from
    // there on. It must do what it says or leave the lists whole, and log why.
    void FailEach(const std::function<bool(dllist*)>& deed, const std::string& done,
                  const std::string& left, const std::string& line)
    {
        if (line[0] == '1')
            log.ExpectError(line.substr(2, line.size() - 3));
        for (const bool all : {false, true}) {
            bool failed = true;
            for (long n = 0; failed && !HasFailure(); n += all ? 5 : 1) {
                SCOPED_TRACE((all ? "all after " : "only ") + std::to_string(n));
                dllist lists;
                PutBefore();
                ASSERT_TRUE(lists.InitCache());
                PutAfter();
                log.Clear();
                FailAllocation(n, all);
                const bool was_done = deed(&lists);
                failed = EndFailingAllocations();
                const std::string logged = Logged();
                EXPECT_EQ(Content(&lists), was_done ? done : left) << logged;
                EXPECT_TRUE(failed || was_done);
                EXPECT_TRUE(was_done || all || logged.ends_with(line)) << logged;
            }
        }
    }
    static std::string Content(dllist* lists)
    {
        return Names(lists) + Members(lists, kTeam, "Immediate") + Members(lists, kTeam, "Digest") +
               std::to_string(lists->GetMode(kTeam)) +
               (lists->GetSpamSettings(kTeam)->IsWhitelistedSender("x@example.net") ? " w" : "");
    }

    std::string before_;
    std::string after_;
    std::unique_ptr<Slapd> server_;
};

INSTANTIATE_TEST_SUITE_P(Then, ShortMemory,
                         ::testing::Values(Then::kFile, Then::kServer, Then::kStamps),
                         [](const auto& row) {
                             return row.param == Then::kFile     ? "File"
                                    : row.param == Then::kServer ? "Server"
                                                                 : "Stamps";
                         });

constexpr char kBefore[] =
    "x@example.org y@example.org z@example.org team@example.org old@example.org ann@example.com 1";
constexpr char kAfter[] =
    "x@example.org y@example.org z@example.org team@example.org new@example.org ann@example.com "
    "a-longer-address@example.com 0 w";
constexpr char kLine[] = "1 Out of memory, unable to allocate space to hold mailing list entry\n";

TEST_P(ShortMemory, ARefreshIsDoneOrLeavesTheLists)
{
    FailEach([](dllist* lists) { return lists->RefreshCache() && !lists->RefreshFailed(); }, kAfter,
             kBefore, kLine);
}

TEST_P(ShortMemory, ALoadIsDoneOrLeavesTheLists)
{
    FailEach([](dllist* lists) { return lists->InitCache(); }, kAfter, kBefore, kLine);
}

TEST_P(ShortMemory, ALookUpAppendsTheListOrNothing)
{
    FailEach(
        [](dllist* lists) {
            const bool found = lists->AddCache("new@example.org");
            EXPECT_NE(found, lists->LookUpFailed());
            return found;
        },
        "x@example.org y@example.org z@example.org team@example.org old@example.org "
        "new@example.org ann@example.com 1",
        kBefore,
        "6 Out of memory, realloc failed, unable to create space to hold the mailing list "
        "entry.\n");
}

TEST_P(ShortMemory, AnOwnerIsFoundOrAskedForAgain)
{
    const std::string list = kTeam;
    FailEach(
        [&list](dllist* lists) {
            const char* owner = lists->GetListOwner(list);
            EXPECT_STREQ(owner ? owner : "the-owner-of-it@example.com",
                         "the-owner-of-it@example.com");
            EXPECT_NE(owner != nullptr, lists->LookUpFailed());
            return owner != nullptr;
        },
        kBefore, kBefore, "1 Could not look up the owner of mailing list team@example.org\n");
}

}  // namespace
}  // namespace dl::testing
