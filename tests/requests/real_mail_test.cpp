// Requests and replies as mail programs write them, and what must come of each.
//
// The messages lie in tests/data/requests. Some outcomes are not what their senders had in mind: a
// command is looked for in the first line only, and a confirmation in one line of the Subject.

#include <algorithm>

#include "requests/incoming.h"
#include "tests/support/site.h"

namespace dl::testing
{
namespace
{

constexpr char kAnnaMail[] = "anna@example.com";
constexpr char kPaulMail[] = "paul@example.org";
constexpr char kBoardRequestMail[] = "board-request@lists.example.org";
constexpr char kClubRequestMail[] = "club-request@lists.example.org";

struct Row {
    const char* file;
    const char* outcome;
    const char* pending = "";  // what waits for the sender's confirmation under 0012AB34
    const char* sender = kPaulMail;
    const char* to = "garden-request@lists.example.org";
};

constexpr Row kRows[] = {
    {"plain", "asked: subscribe"},
    {"no_mime", "asked: subscribe"},
    {"capital_with_signature", "asked: subscribe"},
    {"flowed_digest", "asked: subscribe digest"},
    {"qp_soft_break", "asked: subscribe digest"},
    {"base64", "asked: subscribe"},
    {"base64_bom", "bounced"},
    {"base64_no_mime_version", "asked: subscribe"},
    {"version_with_comment", "asked: subscribe"},
    {"type_without_subtype", "asked: subscribe"},
    {"alternative", "asked: subscribe"},
    {"alternative_tight", "asked: subscribe digest"},
    {"alternative_html_first", "bounced"},
    {"html_only", "bounced"},
    {"mixed_company_footer", "asked: subscribe"},
    {"mixed_vcard", "asked: subscribe"},
    {"mixed_untyped_first", "bounced"},
    {"mixed_alternative_and_image", "bounced"},
    {"related_logo", "bounced"},
    {"signed", "bounced"},
    {"encrypted", "bounced"},
    {"greeting", "bounced"},
    {"polite", "bounced"},
    {"only_in_the_subject", "discarded: no member"},
    {"blank_line_first", "asked: unsubscribe", "", kAnnaMail},
    {"no_break_space", "bounced"},
    {"utf16", "bounced"},
    {"member_already", "discarded: member already", "", kAnnaMail},
    {"owner_decides", "sent to the owner", "", kPaulMail, kClubRequestMail},
    {"quoted_command", "bounced"},
    {"unsubscribe", "asked: unsubscribe", "", kAnnaMail},
    {"unsubscribe_alternative", "asked: unsubscribe", "", kAnnaMail},
    {"unsubscribe_with_address", "asked: unsubscribe", "", kAnnaMail},
    {"unsubscribe_no_member", "discarded: no member"},
    {"unsubscribe_button", "bounced", "", kAnnaMail},
    {"remove_me", "bounced", "", kAnnaMail},
    {"registration", "asked: archive", "archive", kAnnaMail, kBoardRequestMail},
    {"registration_qp", "asked: archive", "archive", kAnnaMail, kBoardRequestMail},
    {"registration_alternative", "asked: archive", "archive", kAnnaMail, kBoardRequestMail},
    {"registration_wrapped", "nothing", "archive", kAnnaMail, kBoardRequestMail},
    {"ok_top_posted", "confirmed: subscribe", "subscribe"},
    {"ok_bottom_posted", "confirmed: subscribe", "subscribe"},
    {"ok_after_greeting", "confirmed: subscribe", "subscribe"},
    {"ok_german", "confirmed: subscribe", "subscribe"},
    {"ok_german_other", "confirmed: subscribe", "subscribe"},
    {"ok_swedish", "confirmed: subscribe", "subscribe"},
    {"ok_french", "confirmed: subscribe", "subscribe"},
    {"ok_polish", "confirmed: subscribe", "subscribe"},
    {"ok_chinese_prefix", "confirmed: subscribe", "subscribe"},
    {"ok_chinese_raw", "confirmed: subscribe", "subscribe"},
    {"ok_many_prefixes", "confirmed: subscribe", "subscribe"},
    {"ok_shouted_subject", "confirmed: subscribe", "subscribe"},
    {"subject_encoded", "bounced", "subscribe"},
    {"subject_folded_before_id", "bounced", "subscribe"},
    {"subject_folded_in_phrase", "bounced", "subscribe"},
    {"subject_folded_behind_prefix", "bounced", "subscribe"},
    {"ok_base64", "confirmed: subscribe", "subscribe"},
    {"ok_base64_no_line_end", "bounced", "subscribe"},
    {"ok_qp_blank", "confirmed: subscribe", "subscribe"},
    {"ok_alternative", "confirmed: subscribe", "subscribe"},
    {"ok_alternative_tight", "bounced", "subscribe"},
    {"ok_html_only", "bounced", "subscribe"},
    {"ok_html_own_line", "confirmed: subscribe", "subscribe"},
    {"ok_with_attachment", "confirmed: subscribe", "subscribe"},
    {"ok_full_stop", "bounced", "subscribe"},
    {"ok_comma", "bounced", "subscribe"},
    {"okay", "bounced", "subscribe"},
    {"yes", "bounced", "subscribe"},
    {"only_quoted", "bounced", "subscribe"},
    {"refusal", "bounced", "subscribe"},
    {"other_address", "bounced", "subscribe", "paul.example@example.net"},
    {"identifier_mangled", "bounced", "subscribe"},
    {"digest_confirmed", "confirmed: subscribe digest", "subscribe digest"},
    {"unsubscription_confirmed", "confirmed: unsubscribe", "unsubscribe", kAnnaMail},
    {"archive_confirmed", "confirmed: archive", "archive", kAnnaMail, kBoardRequestMail},
    {"late_ok", "bounced"},
    {"late_ok_blank_line_first", "asked: unsubscribe", "", kAnnaMail},
    {"auto_reply", "bounced", "subscribe"},
    {"auto_reply_that_says_ok", "confirmed: subscribe", "subscribe"},
    {"auto_reply_blank_line_first", "discarded: no member", "", "<>"},
    {"delivery_report", "bounced to the postmaster", "subscribe", "<>"},
    {"read_receipt", "bounced", "subscribe"},
};

}  // namespace

class RealMail : public Site, public ::testing::WithParamInterface<Row>
{
 protected:
    std::string Outcome(const std::string& list) const
    {
        const auto asked_for = [&] {
            const std::string line = Pending(list).at(0).substr(14);  // behind "XXXXXXXX.cnf: "
            return line.substr(0, line.find(list) - 1);
        };
        if (log.HasPart("Received unknown message type"))
            return On().at(0).recipients.at(0) == "postmaster@mail.example.org"
                       ? "bounced to the postmaster"
                       : "bounced";
        if (log.HasPart("Received archive authentication confirm message"))
            return "confirmed: archive";
        if (log.HasPart("Received subscription confirm message"))
            return log.HasPart("mode=Digest") ? "confirmed: subscribe digest"
                                              : "confirmed: subscribe";
        if (log.HasPart("Received unsubscription confirm message"))
            return "confirmed: unsubscribe";
        if (log.HasPart("An archive registration confirmation request"))
            return "asked: archive";
        if (log.HasPart("subscription confirmation request message for"))
            return "asked: " + asked_for();
        if (log.HasPart("is not a valid list member"))
            return "discarded: no member";
        if (log.HasPart("has been subscribed to mailing list"))
            return "discarded: member already";
        return log.HasPart("Forwarded auto subscription message") ? "sent to the owner" : "nothing";
    }
};

TEST_P(RealMail, HasItsOutcome)
{
    const Row& row = GetParam();
    const std::string list = SplitAlias(row.to, kRequestSuffix).List();
    AddUsualLists();
    Start();
    const std::string pending = row.pending;
    if (pending == "archive")
        WritePending("0012AB34", "anna@example.com:hash\r\n", list);
    else if (!pending.empty())
        WritePending("0012AB34",
                     pending + " " + list + " " +
                         (pending == "unsubscribe" ? kAnnaMail : kPaulMail) + "\r\n",
                     list);
    const std::vector<std::string> members = Members(list);
    const std::string text = ReadFile(DataPath("requests/" + std::string(row.file) + ".eml"));
    ASSERT_FALSE(text.empty());
    Submit(row.sender, {row.to}, text);
    const std::string outcome = row.outcome;
    if (outcome.rfind("bounced", 0) == 0) {
        log.ExpectError("Received unknown message type to ");
        log.ExpectError("Message is bounced to the original sender");
    }
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Outcome(list), outcome);
    const bool confirmed = outcome.rfind("confirmed", 0) == 0;
    const bool changed = confirmed && outcome != "confirmed: archive";
    EXPECT_EQ(Members(list) != members, changed);
    EXPECT_EQ(std::filesystem::exists(Path("data/" + list + "/0012AB34.cnf")),
              !pending.empty() && !confirmed);
    EXPECT_TRUE(On("dl").empty());
    EXPECT_EQ(TempFiles(), 0);
}

INSTANTIATE_TEST_SUITE_P(Messages, RealMail, ::testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.file); });

// No message without an outcome.
TEST(RealMailFolder, IsReadToTheLast)
{
    for (const auto& file : std::filesystem::directory_iterator(DataPath("requests"))) {
        const std::string name = file.path().stem();
        EXPECT_TRUE(std::any_of(std::begin(kRows), std::end(kRows), [&](const Row& row) {
            return name == row.file;
        })) << name;
    }
}

}  // namespace dl::testing
