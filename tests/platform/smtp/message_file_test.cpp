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
    for (const auto& row : dl::testing::ReadTable("tables/mail.txt", "lines on the wire")) {
        SCOPED_TRACE(row.at(0));
        const std::string& want = row.at(2);
        MessageFile file;
        std::string cause;
        ASSERT_TRUE(file.Open(Write("m.msg", row.at(1)), &cause)) << cause;
        EXPECT_EQ(Wire(file), want + ".\r\n");
        EXPECT_EQ(file.WireBytes(), static_cast<std::int64_t>(want.size()) - std::stoi(row.at(3)));
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
