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
    std::vector<Row> rows = {{"50 nested parts", Nested(50, "multipart/mixed"), 1},
                             {"20,000 nested parts", Nested(20'000, "multipart/mixed"), 0},
                             {"20,000 nested digests", Nested(20'000, "multipart/digest"), 0}};
    for (const auto& row : testing::ReadTable("tables/mime.txt", "hostile messages"))
        rows.push_back({row.at(0), row.at(1), std::stoi(row.at(2))});
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
                                Repeat("--b\r\n\r\nx\r\n", 4'000) + "--b--\r\n";
    const std::string file = Write("m.msg", message);
    EXPECT_TRUE(InsertDisclaimers(
        file, Write("d.txt", std::string(900, 'd') + "\n" + std::string(900, 'e')), ""));
    const std::string after = testing::ReadFile(file);
    EXPECT_GT(after.size(), 2'000'000U);
    EXPECT_LT(after.size(), 4'000'000U);
    EXPECT_TRUE(log.HasPart("it is too large"));
}

// What the parser was not shown may rule how the part is to be read.
TEST_F(Hostile, APartWithAFieldBeyondTheBoundsStaysAsItIs)
{
    const std::string part =
        "Content-Disposition: inline" + Repeat(";a=b", 20'000) + "; filename=x\r\n\r\nbody\r\n";
    EXPECT_EQ(Insert(part), 0);
    EXPECT_TRUE(log.HasPart("header fields beyond all bounds"));
    EXPECT_EQ(Insert("To: " + Repeat("g:", 20'000) + "\r\n\r\nbody\r\n"), 1);
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
