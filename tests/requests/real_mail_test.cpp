// Requests and replies as mail programs write them, and what must come of each.
//
// The messages lie in tests/data/requests, their outcomes in tests/data/requests.txt. Some outcomes
// are not what their senders had in mind: a command is looked for in the first line only, and a
// confirmation in one line of the Subject.

#include "requests/incoming.h"
#include "tests/support/site.h"

namespace dl::testing
{
namespace
{

struct Row {
    std::string file, outcome, pending, sender, to;
};

std::vector<Row> Rows()
{
    std::vector<Row> rows;
    for (const auto& fields : ReadTable("requests.txt"))
        rows.push_back({fields.at(0), fields.at(1), fields.at(2) == "-" ? "" : fields.at(2),
                        fields.at(3), fields.at(4)});
    return rows;
}

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
    const std::string& pending = row.pending;
    if (pending == "archive")
        WritePending("0012AB34", "anna@example.com:hash\r\n", list);
    else if (!pending.empty())
        WritePending("0012AB34",
                     pending + " " + list + " " +
                         (pending == "unsubscribe" ? "anna@example.com" : "paul@example.org") +
                         "\r\n",
                     list);
    const std::vector<std::string> members = Members(list);
    const std::string text = ReadFile(DataPath("requests/" + row.file + ".eml"));
    ASSERT_FALSE(text.empty());
    Submit(row.sender, {row.to}, text);
    const std::string& outcome = row.outcome;
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

INSTANTIATE_TEST_SUITE_P(Messages, RealMail, ::testing::ValuesIn(Rows()),
                         [](const auto& row) { return row.param.file; });

// No message without an outcome.
TEST(RealMailFolder, IsReadToTheLast)
{
    for (const auto& file : std::filesystem::directory_iterator(DataPath("requests"))) {
        const std::string name = "\n" + file.path().stem().string() + " | ";
        EXPECT_NE(ReadFile(DataPath("requests.txt")).find(name), std::string::npos) << name;
    }
}

}  // namespace dl::testing
