// What a text looks like in the log, and how much of it stands there.

#include "platform/log/log.h"

#include "tests/support/fixture.h"

namespace dl::testing
{
namespace
{

class Log : public Fixture
{
};

TEST_F(Log, LineIsOneLineOfPlainText)
{
    const struct {
        const char *name, *text, *shown;
    } rows[] = {
        {"line ends and tabs", "a\r\nb\tc", "a\\r\\nb\\tc"},
        {"what a terminal obeys", "\x01\x1B[2J\x7F", "\\x01\\x1B[2J\\x7F"},
        {"the same in UTF-8", "\xC2\x85\xC2\x9B", "\\xC2\\x85\\xC2\\x9B"},
        {"letters in UTF-8", "\xC2\xA0\xC3\x9C", "\xC2\xA0\xC3\x9C"},
        {"half a letter at the end", "\xC2", "\xC2"},
        {"no format", "%s%n", "%s%n"},
    };
    for (const auto& row : rows) {
        log.Clear();
        EXPECT_EQ(DlLog(6, "%s", row.text), static_cast<int>(std::string(row.text).size()));
        ASSERT_EQ(log.Lines().size(), 1U);
        EXPECT_EQ(log.Lines()[0].text, row.shown) << row.name;
        EXPECT_EQ(log.Lines()[0].module, "DL Manager");
    }
}

TEST_F(Log, LongTextIsCut)
{
    const std::string address(100'000, 'a');
    EXPECT_EQ(DlLog(5, "Processing recipient: %s", address.c_str()), 100'022);
    EXPECT_EQ(log.Lines().at(0).text, "Processing recipient: " + std::string(1001, 'a'));
}

}  // namespace
}  // namespace dl::testing
