// Mail that was made to do harm: unchanged or changed in the one place, never a crash, never slow.
#include <chrono>

#include "platform/mime/mime.h"
#include "tests/support/fixture.h"

namespace dl
{
namespace
{

std::string Repeat(const std::string& text, int count)
{
    std::string out;
    for (int i = 0; i < count; ++i)
        out += text;
    return out;
}

std::string Nested(int depth, const std::string& type)
{
    std::string out;
    for (int i = 0; i < depth; ++i) {
        const std::string boundary = "b" + std::to_string(i);
        out += "Content-Type: ";
        out += type + "; boundary=" + boundary + "\r\n\r\n--" + boundary + "\r\n";
    }
    return out + "Content-Type: text/plain\r\n\r\ndeep\r\n";
}

constexpr std::string_view kMark = "d\r\n";

struct Row {
    std::string name, message;
    int marks = 0;  // disclaimers that the result has
};

class Hostile : public testing::Fixture
{
 protected:
    // The number of disclaimers in the result, which without them is the message again; -1 when it
    // is not.
    int Insert(const std::string& message)
    {
        const std::string file = Write("m.msg", message);
        EXPECT_TRUE(InsertDisclaimers(file, Write("d.txt", "d\n"), Write("d.html", "d\n")));
        const std::string after = testing::ReadFile(file);
        int marks = 0;
        std::size_t old = 0;
        for (std::size_t at = 0; at < after.size();) {
            if (old < message.size() && after[at] == message[old]) {
                ++at;
                ++old;
            } else if (std::string_view(after).substr(at, kMark.size()) == kMark) {
                at += kMark.size();
                ++marks;
            } else {
                return -1;
            }
        }
        return old == message.size() ? marks : -1;
    }
};

TEST_F(Hostile, StaysOrChangesInOnePlace)
{
    const std::string mixed = "Content-Type: multipart/mixed; boundary=b\r\n\r\n";
    const Row rows[] = {

        {"header only", "Subject: x\r\n", 0},
        {"line that is no field", "Subject: x\r\nno field\r\nX: y\r\n\r\nbody\r\n", 0},
        {"envelope line first", "From a@example.org Sat Nov 21\r\nSubject: x\r\n\r\nbody\r\n", 0},
        {"header twice", "Content-Type: text/plain\r\nContent-Type: text/html\r\n\r\nbody\r\n", 0},
        {"bare line feeds in the body", "Subject: x\r\n\r\none\ntwo\rthree\r\n", 1},
        {"NUL bytes in the body", "Subject: x\r\n\r\n" + std::string("a\0b\r\n", 5), 1},
        {"NUL byte in a ruling field",
         std::string("Content-Type: text/plain;\0 x=y\r\n\r\nbody\r\n", 40), 0},
        {"one line of 10 MB", "Subject: x\r\n\r\n" + std::string(10'000'000, 'x') + "\r\n", 1},
        {"body above the bound",
         "Subject: x\r\n\r\n" + Repeat(std::string(98, 'x') + "\r\n", 200'000), 0},

        {"200,000 header lines", Repeat("X-A: b\r\n", 200'000) + "\r\nbody\r\n", 0},
        {"50 nested parts", Nested(50, "multipart/mixed"), 1},
        {"20,000 nested parts", Nested(20'000, "multipart/mixed"), 0},
        {"20,000 nested digests", Nested(20'000, "multipart/digest"), 0},

        {"part without an empty line", mixed + "--b\r\nno header\r\n--b--\r\n", 0},
        {"empty boundary",
         "Content-Type: multipart/mixed; boundary=\"\"\r\n\r\n--\r\n\r\nx\r\n----\r\n", 0},
        {"charset that is a path",
         "Content-Type: text/plain; charset=\"../../tmp/x\"\r\n\r\nbody\r\n", 0},
        {"charset that asks for more",
         "Content-Type: text/plain; charset=utf-8//IGNORE\r\n\r\nbody\r\n", 0},

        {"disposition that is not known", "Content-Disposition: x-hidden\r\n\r\nbody\r\n", 0},

        {"many closing tags", "Content-Type: text/html\r\n\r\n" + Repeat("</body>\r\n", 100'000),
         1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Insert(row.message), row.marks);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    }
}

TEST_F(Hostile, ManyPartsGetDisclaimersOnlyWithinTheBound)
{
    const std::string message = "Content-Type: multipart/mixed; boundary=b\r\n\r\n" +
                                Repeat("--b\r\n\r\nx\r\n", 20'000) + "--b--\r\n";
    const std::string file = Write("m.msg", message);
    EXPECT_TRUE(InsertDisclaimers(
        file, Write("d.txt", std::string(900, 'd') + "\n" + std::string(900, 'e')), ""));
    const std::string after = testing::ReadFile(file);
    EXPECT_GT(after.size(), 10'000'000U);
    EXPECT_LT(after.size(), 20'000'000U);
    EXPECT_TRUE(log.HasPart("it is too large"));
}

TEST_F(Hostile, ABoundaryThatIsALineOfTheDisclaimer)
{
    const struct {
        const char* boundary;
        bool changed;
    } rows[] = {{"------", false}, {"Leave", true}, {"x", true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.boundary);
        const std::string delimiter = std::string("--") + row.boundary;
        const std::string message = std::string("Content-Type: multipart/mixed; boundary=\"") +
                                    row.boundary + "\"\r\n\r\n" + delimiter + "\r\n\r\nbody\r\n" +
                                    delimiter + "--\r\n";
        const std::string file = Write("m.msg", message);
        EXPECT_TRUE(InsertDisclaimers(file, Write("d.txt", "----------\nLeave\n"), ""));
        EXPECT_EQ(testing::ReadFile(file) != message, row.changed);
    }
}

TEST_F(Hostile, ALargePartDoesNotKeepTheDisclaimerFromOthers)
{
    const std::string message = "Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n\r\n" +
                                Repeat(std::string(998, 'x') + "\r\n", 20'000) +
                                "--b\r\n\r\nbody\r\n\r\n--b--\r\n";
    EXPECT_EQ(Insert(message), 1);
    EXPECT_TRUE(log.HasPart("it is too large"));
}

TEST_F(Hostile, AnInjectedParameterStaysAParameter)
{
    const std::string file = Write("m.msg",
                                   "Content-Type: text/plain; charset=us-ascii; "
                                   "x*=utf-8''a%0D%0ABcc:%20b@example.org\r\n\r\nbody\r\n");
    EXPECT_TRUE(InsertDisclaimers(file, Write("d.txt", "\xC3\xBC\n"), ""));
    EXPECT_EQ(testing::ReadFile(file).find("\nBcc"), std::string::npos);
}

}  // namespace
}  // namespace dl
