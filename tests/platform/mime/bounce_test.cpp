// Delivery status reports, as Python's email package reads them.

#include "platform/mime/bounce_mime_message.h"

#include "platform/files/files.h"
#include "platform/queue/queue.h"
#include "tests/support/child.h"
#include "tests/support/failing_queue.h"
#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

// Prints what a mail program would make of the report; defects of the message come first.
constexpr char kReader[] = R"(
import email, email.policy, sys
message = email.message_from_binary_file(open(sys.argv[1], 'rb'), policy=email.policy.SMTPUTF8)
data = open(sys.argv[1], 'rb').read()
for part in message.walk():
    if part.defects: print('defects', part.get_content_type(), part.defects)
if data.replace(b'\r\n', b'').count(b'\n') or data.replace(b'\r\n', b'').count(b'\r'):
    print('line ends')
if max(len(line) for line in data.split(b'\r\n')) > 998: print('long lines')
if b'\0' in data: print('NUL')
print(message.get_content_type(), message.get_param('report-type'))
for name in ('From', 'To', 'Subject', 'Date', 'Auto-Submitted', 'Reply-To', 'Bcc'):
    if message[name] is not None: print(name + ': ' + str(message[name]))
parts = message.get_payload()
print(len(parts), [part.get_content_type() for part in parts])
print(repr(parts[0].get_content()))
for block in parts[1].get_payload():
    for name, value in block.items(): print('  %s: %s' % (name, value))
original = parts[2].get_payload(decode=True).decode('utf-8', 'replace').replace('\r\n', '\n')
print(repr(original[:400]), len(original) > 400)
)";

class BounceTest : public Fixture
{
 protected:
    BounceTest() : queue(Path("queue"))
    {
        SetZone("Europe/Berlin");
        Configure("[Connection]\nGatewayHostName = mx1\nGatewayDomain = example.org\n");
        description.recipient = "bert@example.com";
        description.type = "DSN";
        description.flag = 128;
        description.refused = "garden@lists.example.org";
    }
    int Bounce(const std::string& message, const std::string& reason = "No spam, please.")
    {
        Write("0000000A.msg", message);
        return BounceMimeMessage(Path("0000000A"), description, {reason});
    }
    // The report that waits on "dlout", as the reader shows it; it leaves the queue.
    std::string Report()
    {
        std::vector<QueueItem> items;
        if (!ListMQ("dlout", 0, &items) || items.size() != 1)
            return "no report\n";
        std::string text;
        EXPECT_EQ(
            RunProgram({"/usr/bin/python3", "-c", kReader, GetMQPathName(items[0].id, ".msg")},
                       &text),
            0);
        EXPECT_EQ(RemoveMQItem(items[0].id), QueueChange::kDone);
        return text;
    }

    FailingQueue queue;
    BounceDescription description;
};

TEST_F(BounceTest, IsAStatusReport)
{
    ASSERT_EQ(Bounce("Subject: Caf\xc3\xa9\r\n folded\r\nX-Spam-Status: YES\r\n\r\nbody\r\n"), 0);
    std::vector<QueueItem> items;
    ASSERT_TRUE(ListMQ("dlout", 0, &items));
    ASSERT_EQ(items.size(), 1U);
    EnvelopeResult found = GetMQEnvelope(items[0].id);
    ASSERT_TRUE(found.envelope);
    EXPECT_EQ(found.envelope->SenderAddress(), "<>");
    found.envelope->senders.cursor = nullptr;
    EXPECT_EQ(found.envelope->senders.Next()->flags, 128);
    found.envelope->recipients.cursor = nullptr;
    EXPECT_EQ(found.envelope->recipients.Next()->address, "bert@example.com");
    char line[200];
    std::snprintf(line, sizeof line, "Bounced %08lX size: %ld bytes to: <bert@example.com>",
                  items[0].id, static_cast<long>(items[0].bytes));
    EXPECT_TRUE(log.Has(3, line));
    EXPECT_EQ(Report(), ReadFile(DataPath("report.txt")));
}

TEST_F(BounceTest, NothingFromMailChangesItsStructure)
{
    for (const auto& row : ReadTable("tables/mime.txt", "reports of hostile mail")) {
        SCOPED_TRACE(row.at(0));
        description.refused = row.at(2);
        ASSERT_EQ(Bounce(row.at(1), row.at(3)), 0);
        const std::string report = Report();
        EXPECT_EQ(report.rfind("multipart/report delivery-status\nFrom:", 0), 0U) << report;
        EXPECT_EQ(report.find("Bcc: x@y.z\n"), std::string::npos);
        EXPECT_NE(report.find("3 ['text/plain', 'message/delivery-status', 'text/rfc822-headers']"),
                  std::string::npos)
            << report;
        for (const std::string& part : {row.at(4), row.at(5)})
            EXPECT_NE(report.find(part), std::string::npos) << report;
    }
}

TEST_F(BounceTest, FailuresLeaveNothingBehind)
{
    const std::string list = "l@example.org";
    for (const BounceDescription& refused : {BounceDescription{"<>", "DSN", 128, "", "", list},
                                             {"", "DSN", 128, "", "", list},
                                             {"a@b.c\r\nRCPT TO:<x@y.z>", "DSN", 128, "", "", list},
                                             {"a@b.c", "MDN", 128, "", "", list},
                                             {"a@b.c", "DSN", 128, "", "", ""}}) {
        description = refused;
        EXPECT_EQ(Bounce("A: b\r\n\r\n"), -1) << refused.recipient;
    }
    EXPECT_EQ(queue.Calls(), "");
    description = {"a@b.c", "DSN", 128, "", "", list};
    EXPECT_EQ(BounceMimeMessage(Path("missing"), description, {"no"}), -1);
    for (const QueueCall call :
         {QueueCall::kCreate, QueueCall::kInsert, QueueCall::kEnvelope, QueueCall::kClose}) {
        queue.FailNext(call);
        EXPECT_EQ(Bounce("A: b\r\n\r\n"), -1);
    }
    EXPECT_EQ(Report(), "no report\n");
    EXPECT_FALSE(log.HasPart("Bounced "));
}

}  // namespace
}  // namespace dl::testing
