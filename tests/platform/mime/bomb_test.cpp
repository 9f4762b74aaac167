// Mail that was made to use up memory, stack or time, and the view that keeps it from the parser.
#include <chrono>
#include <functional>

#include "platform/files/files.h"
#include "platform/mime/bounded_view.h"
#include "platform/mime/mime.h"
#include "platform/mime/read_posting.h"
#include "platform/mime/rfc822.h"
#include "tests/support/fixture.h"
#include "tests/support/peak_memory.h"

namespace dl
{
namespace
{

using std::chrono::steady_clock;

// In a release build on an idle machine each takes less than a second.
constexpr std::chrono::seconds kPatience(20);

class Bomb : public testing::Fixture
{
 protected:
    // Does `deed` within the memory and time that a message of `size` bytes may take.
    void Bounded(const char* what, std::size_t size, const std::function<void()>& deed)
    {
        SCOPED_TRACE(what);
        const auto start = steady_clock::now();
        const testing::PeakMemory memory;
        deed();
        EXPECT_LT(memory.Bytes(), static_cast<std::int64_t>(4 * size + (16 << 20)));
        EXPECT_LT(steady_clock::now() - start, kPatience);
    }

    void ReadBodies(const MimePart* part, std::int64_t* bytes)
    {
        std::string body = MimeGetBody(part, 0, -1);
        *bytes += std::max<std::int64_t>(FileSize(body), 0);
        MimeFreeFile(&body);
        for (std::uint16_t i = 0; i < std::min<int>(MimeGetPartCount(part), 100); ++i)
            if (MimeGetPartCount(MimeGetPart(part, i)) == 0)
                ReadBodies(MimeGetPart(part, i), bytes);
    }
};

TEST_F(Bomb, DoesNotGoOff)
{
    const std::string text = Write("d.txt", "F\xC3\xBCr 5 \xE2\x82\xAC\n");
    const std::string html = Write("d.html", "<p>F\xC3\xBCr 5 \xE2\x82\xAC</p>\n");
    for (const auto& row : testing::ReadTable("tables/mime.txt", "bombs")) {
        SCOPED_TRACE(row.at(0));
        const std::string& message = row.at(1);
        const std::string file = Write("m.msg", message);
        Bounded("bodies", message.size(), [&] {
            MimeMessagePtr parsed;
            std::int64_t bytes = 0;
            if (MimeParseMessage(file, 1, &parsed) == 0)
                ReadBodies(MimeGetMsg(parsed.get(), 0), &bytes);
            EXPECT_LE(bytes, static_cast<std::int64_t>(2 * message.size()));
        });
        Bounded("posting", message.size(), [&] {
            const auto posting = PostingFile::Read(file);
            FileWriter out(Path("attachments"), "wb");
            for (std::size_t i = 0; posting && i < posting->Get().attachments.size(); ++i)
                EXPECT_TRUE(posting->WriteAttachment(i, &out));
            EXPECT_LE(out.Written(), static_cast<std::int64_t>(2 * message.size()));
        });
        Bounded("store", message.size(), [&] {
            const std::size_t end = std::min(message.find("\r\n\r\n"), message.size() - 2) + 2;
            const std::string_view view = message;
            mail_envelope envelope;
            mail_body body;
            (void)rfc822_parse_msg_full(&envelope, &body, view.substr(0, end), {view.substr(end)},
                                        "h");
        });
        Bounded("disclaimers", message.size(),
                [&] { EXPECT_TRUE(InsertDisclaimers(file, text, html)); });
    }
}

TEST_F(Bomb, TheParserSeesABoundedView)
{
    for (const auto& row : testing::ReadTable("tables/mime.txt", "bounded views")) {
        SCOPED_TRACE(row.at(0));
        for (const std::size_t piece : {std::size_t{1} << 20, std::size_t{1}, std::size_t{70}}) {
            SCOPED_TRACE(piece);
            std::string seen = row.at(1);
            BoundedView view(static_cast<std::int64_t>(seen.size()));
            for (std::size_t at = 0, end = 0; at < seen.size();) {
                end = std::min(end + piece, seen.size());
                at += view.Bound(seen.data() + at, end - at, end == seen.size());
            }
            EXPECT_EQ(seen, row.at(2));
        }
    }
}

// What is not shown to the parser is there all the same: bodies stand where they stand.
TEST_F(Bomb, BodiesAreReadFromTheMessage)
{
    std::string body = "To: ";
    for (int i = 0; i < 1000; ++i)
        body += "g:";
    const std::string part = "Content-Type: text/plain\r\n" + body + "\r\n\r\n" + body;
    MimeMessagePtr message;
    ASSERT_EQ(MimeParseMessage(Write("m.msg", body +
                                                  "\r\nContent-Type: multipart/mixed; "
                                                  "boundary=b\r\n\r\n--b\r\n" +
                                                  part + "\r\n--b--\r\n"),
                               1, &message),
              0);
    std::string file = MimeGetBody(MimeGetPart(MimeGetMsg(message.get(), 0), 0), 0, -1);
    EXPECT_EQ(testing::ReadFile(file), body);
    MimeFreeFile(&file);
}

}  // namespace
}  // namespace dl
