#include "platform/smtp/message_file.h"

#include "tests/support/fixture.h"

namespace dl::smtp
{
namespace
{

class MessageFileTest : public dl::testing::Fixture
{
 protected:
    // What goes over the wire; empty when it cannot be read.
    static std::string Wire(const MessageFile& file)
    {
        WireReader reader(file);
        std::string out;
        for (;;) {
            const WireReader::Result result = reader.Next(&out);
            if (result == WireReader::Result::kFailed)
                return "";
            if (result == WireReader::Result::kEnd)
                return out;
        }
    }
};

TEST_F(MessageFileTest, GivesLinesAsTheyMustGoOut)
{
    const std::string block(65535, 'x');
    struct Row {
        const char* name;
        std::string bytes;
        std::string want;  // without the last dot
        int dots;
    };
    const Row rows[] = {
        {"empty", "", "", 0},
        {"as it should be", "a\r\n\r\nb\r\n", "a\r\n\r\nb\r\n", 0},
        {"line feeds", "a\n\nb\n", "a\r\n\r\nb\r\n", 0},

        {"no last line end", "a", "a\r\n", 0},
        {"dots", ".\r\n..\r\na.b\r\n.c", "..\r\n...\r\na.b\r\n..c\r\n", 3},
        {"lone dot between line feeds", "a\n.\nMAIL FROM:<x>\n", "a\r\n..\r\nMAIL FROM:<x>\r\n", 1},
        {"carriage return alone", "a\r.\rb\r\n", "a . b\r\n", 0},

        {"carriage return before a dot, after a line end", "a\r\n\r.\r\nb\r\n", "a\r\n .\r\nb\r\n",
         0},
        {"carriage return at the end", "a\r", "a \r\n", 0},
        {"line end over a block's end", block + "\r\n.\r\n", block + "\r\n..\r\n", 1},
        {"dot after a block's end", block.substr(1) + "\n.\n", block.substr(1) + "\r\n..\r\n", 1},
        {"carriage return alone at a block's end", block + "\r.\n", block + " .\r\n", 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        MessageFile file;
        std::string cause;
        ASSERT_TRUE(file.Open(Write("m.msg", row.bytes), &cause)) << cause;
        EXPECT_EQ(Wire(file), row.want + ".\r\n");
        EXPECT_EQ(file.WireBytes(), static_cast<std::int64_t>(row.want.size()) - row.dots);
        EXPECT_FALSE(file.EightBit());
    }
}

TEST_F(MessageFileTest, SeesEightBitsWhereverTheyStand)
{
    for (const std::size_t at : {0U, 7U, 8U, 65535U, 65536U, 70000U}) {
        std::string bytes(70001, 'a');
        bytes[at] = '\xC3';
        MessageFile file;
        std::string cause;
        ASSERT_TRUE(file.Open(Write("m.msg", bytes), &cause));
        EXPECT_TRUE(file.EightBit()) << at;
    }
}

TEST_F(MessageFileTest, NeverEndsAFileThatWasCut)
{
    std::string cause;
    MessageFile file;
    ASSERT_TRUE(file.Open(Write("m.msg", std::string(200'000, 'a') + "\n"), &cause));
    std::filesystem::resize_file(Path("m.msg"), 150'000);
    EXPECT_EQ(Wire(file), "");
    MessageFile missing;
    EXPECT_FALSE(missing.Open(Path("none.msg"), &cause));
    EXPECT_EQ(cause, "No such file or directory");
}

}  // namespace
}  // namespace dl::smtp
