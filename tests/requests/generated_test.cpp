// Every message that the service writes itself, byte for byte, and its envelope and log lines.

#include <cstdlib>
#include <functional>

#include "platform/address/address.h"
#include "platform/config/config.h"
#include "requests/bounce.h"
#include "requests/confirmations.h"
#include "requests/mail_identity.h"
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
constexpr char kOwner[] = "garden-owner@lists.example.org";

// What makes the message of the file <name>.want.eml.
struct Generated {
    const char* name;
    std::function<int(const Incoming&)> make;
    const char* sender = "paul@example.org";
};

template <int (*Notify)(const Incoming&, const std::string&, const std::string&, int)>
std::function<int(const Incoming&)> Notice(int outcome)
{
    return [outcome](const Incoming& message) { return Notify(message, kList, kOut, outcome); };
}

std::function<int(const Incoming&)> Copy(int reason)
{
    return
        [reason](const Incoming& message) { return ForwardToOwner(kOwner, message, kOut, reason); };
}

std::function<int(const Incoming&)> Ask(const ConfirmationKind& kind)
{
    return [kind](const Incoming& message) {
        return SendConfirmationRequest(message, kRequest, kOut, kind);
    };
}

const Generated kGenerated[] = {
    {"bounce",
     [](const Incoming& message) {
         return BounceToSender(message, "first line\r\nsecond line\r\n", kOut, false);
     }},
    {"bounce_null_sender",
     [](const Incoming& message) {
         return BounceToSender(
             message, "unknown mailing list address: \"nobody@lists.example.org\"\r\n", kOut, true);
     },
     "<>"},
    {"owner_subscription", Copy(0)},
    {"owner_unsubscription", Copy(1)},
    {"owner_closed_list", Copy(2)},
    {"owner_subscription_confirmed", Copy(3)},
    {"owner_unsubscription_confirmed", Copy(4)},
    {"owner_blocked_member", Copy(5)},
    {"owner_archive_registration", Copy(6)},
    {"owner_other", Copy(-1)},
    {"owner_other", Copy(7)},
    {"subscription_added", Notice<NotifySubscription>(1)},
    {"subscription_already", Notice<NotifySubscription>(2)},
    {"subscription_to_owner", Notice<NotifySubscription>(0)},
    {"subscription_error", Notice<NotifySubscription>(-1)},
    {"subscription_other", Notice<NotifySubscription>(3)},
    {"subscription_other", Notice<NotifySubscription>(-2)},
    {"unsubscription_removed", Notice<NotifyUnsubscription>(0)},
    {"unsubscription_error", Notice<NotifyUnsubscription>(-1)},
    {"unsubscription_error", Notice<NotifyUnsubscription>(2)},
    {"archive_registered", Notice<NotifyArchiveRegistration>(0)},
    {"archive_error", Notice<NotifyArchiveRegistration>(1)},
    {"confirm_subscription", Ask({.subscribe = true})},
    {"confirm_unsubscription", Ask({})},
    {"confirm_archive", Ask({.subscribe = true, .digest = true, .archive = true})},
};

class GeneratedMail : public FaultSite
{
 protected:
    void Make(const Generated& row)
    {
        SetZone("CET-1CEST,M3.5.0,M10.5.0");
        ForgetLists();
        AddUsualLists();
        Start();
        Write("welcome.txt", "Welcome to the garden.\r\n" + std::string(3000, 'x') +
                                 "\r\nlast line, \xe9, without an end");
        WritePending("0000ABCD", "paul@example.org:hash\r\n");
        Submit(row.sender, {kList}, ReadFile(DataPath("generated/original.eml")));
        const Incoming message = Take();
        log.Clear();
        EXPECT_EQ(row.make(message), 0);
    }
};

}  // namespace

// Envelopes, "sender flags channel -> recipient (its channel)", and log lines stand in
// accounts.txt.
TEST_F(GeneratedMail, IsAsItEverWas)
{
    std::string accounts;
    for (const Generated& row : kGenerated) {
        SCOPED_TRACE(row.name);
        Make(row);
        const Queued mail = On().at(0);
        EXPECT_EQ(mail.text,
                  ReadFile(DataPath(std::string("generated/") + row.name + ".want.eml")));
        ASSERT_EQ(mail.recipients.size(), 1U);
        accounts += std::string("== ") + row.name + "\n" + mail.sender + " " +
                    std::to_string(mail.flags) + " " + mail.channel + " -> " + mail.recipients[0] +
                    " (" + mail.recipient_channel + ")\n" + Log();
    }
    ExpectText("generated/accounts.txt", accounts);
}

TEST_F(GeneratedMail, GoesOutWithoutHostNames)
{
    Configure("[Ldap]\nFile = " + Path("site.ldif") +
              "\n[DlManager]\nInstallationId = test-installation\n");
    Make({"", [](const Incoming& message) { return BounceToSender(message, "no", kOut, false); },
          "<>"});
    const Queued bounce = On().at(0);
    EXPECT_EQ(bounce.Header("Received"), "from DL manager by .");
    EXPECT_EQ(bounce.Header("Message-id"), "<4190AB01.test-installation@.>");
    EXPECT_EQ(bounce.Header("To"), "postmaster@.");
    EXPECT_EQ(bounce.recipients.at(0), "postmaster@.");
}

TEST_F(GeneratedMail, TextFileThatCannotBeReadIsPassedOver)
{
    AddUsualLists();
    Start();
    std::filesystem::remove(Path("welcome.txt"));
    for (const bool folder : {false, true}) {
        if (folder)
            std::filesystem::create_directory(Path("welcome.txt"));
        Submit("paul@example.org", {kList}, "hello\n");
        const Incoming message = Take();
        EXPECT_EQ(NotifySubscription(message, kList, kOut, 1), 0);
        EXPECT_TRUE(RemoveMQChannel(message.channel));
        const std::string text = On().back().text;
        EXPECT_EQ(text.substr(text.find("\r\n\r\n") + 4),
                  "Your subscription request of the mailing list garden@lists.example.org has been "
                  "processed successfully.\r\n");
    }
    std::filesystem::remove(Path("welcome.txt"));
}

// No sender, however it came into the envelope, adds a header line or a part.
TEST_F(GeneratedMail, SenderStaysOnItsLine)
{
    const std::function<int(const Incoming&)> makers[] = {
        Notice<NotifySubscription>(0),
        Notice<NotifyUnsubscription>(0),
        Notice<NotifyArchiveRegistration>(0),
        Copy(2),
        Ask({.subscribe = true}),
        [](const Incoming& message) { return BounceToSender(message, "no", kOut, false); }};
    for (const auto& make : makers) {
        Make({"", make, "a@b.example\r\nBcc: all@b.example\r\n\r\n--KVT"});
        const std::string text = On().at(0).text;
        EXPECT_EQ(text.find("\nBcc:"), std::string::npos) << text;
        EXPECT_EQ(text.find("\n--KVT\r"), std::string::npos) << text;
        EXPECT_NE(text.find("a@b.example??Bcc: all@b.example??"), std::string::npos) << text;
    }
    ASSERT_EQ(Pending().size(), 1U);  // the one that Make puts there
}

// The second that stands in it is the next one that no line of the message holds, in any case.
TEST_F(GeneratedMail, ABoundaryIsInNothingThatItEncloses)
{
    const std::string far(70'000, 'x');  // behind what is read at once
    for (const std::string& body :
         {"--KVT.Boundary.4190AB01--\n" + far + "\n--kvt.boundary.4190ab02",
          far + "--KVT.BOUNDARY.4190AB01\n--KVT.Boundary.4190aB02",
          far.substr(0, 65'530 - 80) + "--KVT.Boundary.4190AB01--\n--KVT.Boundary.4190AB02"}) {
        for (const auto& make :
             {Copy(2), std::function<int(const Incoming&)>([](const Incoming& message) {
                  return BounceToSender(message, "no", kOut, false);
              })}) {
            AddUsualLists();
            Start();
            clock.now = 0x4190AB01;
            Submit("paul@example.org", {kList}, "Subject: x\n\n" + body);
            const Incoming message = Take();
            EXPECT_EQ(make(message), 0);
            EXPECT_TRUE(RemoveMQChannel(message.channel));
            const std::string text = LowerCase(On().at(0).text);
            EXPECT_NE(text.find("boundary=\"kvt.boundary.4190ab03\""), std::string::npos)
                << text.substr(0, 1000);
        }
    }
}

TEST_F(GeneratedMail, DateTellsTheZone)
{
    for (const auto& row : ReadTable("tables/requests.txt", "dates in zones")) {
        SCOPED_TRACE(row.at(0));
        SetZone(row.at(0));
        clock.now = std::stol(row.at(1));
        EXPECT_EQ(MailDate(), row.at(2));
    }
}

// Each case in a process of its own: the identifier is fixed for the life of one.
TEST(InstallationIdentifier, IsConfiguredOrMade)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto in_new_process = [](const std::string& line, bool (*fits)(const std::string&)) {
        std::string folder = ::testing::TempDir() + "dlid.XXXXXX";
        if (!mkdtemp(folder.data()))
            std::exit(2);
        SetConfigFolder(folder);
        const auto write = [&](const std::string& text) {
            std::FILE* file = std::fopen((folder + "/qvms.conf").c_str(), "wb");
            if (!file || std::fputs(("[DlManager]\n" + text + "\n").c_str(), file) < 0 ||
                std::fclose(file) != 0)
                std::exit(2);
        };
        write(line);
        const std::string first = InstallationId();
        write("InstallationId = changed-while-it-runs");
        const bool good = fits(first) && InstallationId() == first;
        std::filesystem::remove_all(folder);
        std::fprintf(stderr, "id '%s'\n", first.c_str());
        std::exit(good ? 0 : 1);
    };
    const auto exits_well = ::testing::ExitedWithCode(0);
    EXPECT_EXIT(in_new_process("InstallationId = post-1",
                               [](const std::string& id) { return id == "post-1"; }),
                exits_well, "id 'post-1'");
    EXPECT_EXIT(in_new_process("InstallationId = " + std::string(100, 'a'),
                               [](const std::string& id) { return id == std::string(63, 'a'); }),
                exits_well, "id 'a");
    // As it may stand in a Message-ID (RFC 5322, 3.6.4).
    EXPECT_EXIT(in_new_process("",
                               [](const std::string& id) {
                                   return id.size() >= 20 && id.size() <= 63 &&
                                          id.find_first_not_of(
                                              "0123456789abcdefghijklmnopqrstuvwxyz"
                                              "-") == std::string::npos;
                               }),
                exits_well, "id '");
}

}  // namespace dl::testing
