// The text that a request is read from, and what is read there.

#include "requests/commands.h"

#include "platform/log/format.h"
#include "platform/mime/mime.h"
#include "requests/body_text.h"
#include "requests/confirmations.h"
#include "tests/support/site.h"

namespace dl::testing
{
namespace
{

// "subscribe digest", "unsubscribe", "archive", ...; "unknown".
std::string Say(const RequestCommand& command)
{
    if (!command.known)
        return "unknown";
    return std::string(command.archive     ? "archive"
                       : command.subscribe ? "subscribe"
                                           : "unsubscribe") +
           (command.digest ? " digest" : "");
}

}  // namespace

TEST(CommandLine, IsReadByItsBeginning)
{
    for (const auto& row : ReadTable("tables/requests.txt", "command lines"))
        EXPECT_EQ(Say(ParseCommandLine(row.at(0))), row.at(1)) << row.at(0);
}

class Body : public Site
{
 protected:
    Body()
    {
        AddUsualLists();
        Start();
    }
    std::string Text(const std::string& message)
    {
        std::string name = ExtractBodyText(Submit(kAnna, {kGardenRequest}, message));
        if (name.empty())
            return "(none)";
        std::string text = ReadFile(name);
        MimeFreeFile(&name);
        return text;
    }
    std::string Command(const std::string& body)
    {
        return Say(GetRequestCommand(Submit(kAnna, {kGardenRequest}, "Subject: x\n\n" + body)));
    }
};

// Message and text lie in tests/data/body_parts.txt: "== name", the message, "->", the text.
TEST_F(Body, IsThatOfThePartThatTheRulesChoose)
{
    int rows = 0;
    for (const DataBlock& row : ReadBlocks("body_parts.txt")) {
        SCOPED_TRACE(row.name);
        ++rows;
        EXPECT_EQ(Text(row.in), Crlf(row.want));
    }
    EXPECT_GE(rows, 20);
    EXPECT_EQ(TempFiles(), 0);
}

TEST_F(Body, GivesTheCommandOfItsFirstLine)
{
    EXPECT_EQ(Command(""), "unsubscribe") << "an empty body";
    EXPECT_EQ(Command("\nsubscribe\n"), "unsubscribe") << "a blank first line";
    EXPECT_EQ(Command("Hello\nsubscribe\n"), "unknown");
    EXPECT_EQ(Command("subscribe"), "subscribe") << "no line end";
    // The line is cut at 1023 bytes.
    EXPECT_EQ(Command("subscribe " + std::string(1007, '.') + "digest\n"), "subscribe digest");
    EXPECT_EQ(Command("subscribe " + std::string(1008, '.') + "digest\n"), "subscribe");
    EXPECT_EQ(Command(std::string(1014, ' ') + "subscribe\n"), "subscribe");
    EXPECT_EQ(Command(std::string(1015, ' ') + "subscribe\n"), "unknown");
    EXPECT_EQ(Command(std::string(1023, ' ') + "subscribe\n"), "unsubscribe");
    EXPECT_EQ(Command(std::string(100'000'000, 'x') + "\n"), "unknown") << "100 MB in one line";
    EXPECT_EQ(TempFiles(), 0);
}

TEST_F(Body, GivesTheIdentifierOfARegistration)
{
    for (const auto& row : ReadTable("tables/requests.txt", "identifiers of registrations")) {
        const RegistrationId id = GetArchiveRegistrationId(
            Submit(kAnna, {kGardenRequest}, "Subject: x\r\n\r\n" + row.at(0)));
        EXPECT_EQ(id.found ? FormatText("%lX", static_cast<unsigned long>(id.id)) : "none",
                  row.at(1))
            << row.at(0);
    }
    EXPECT_FALSE(GetArchiveRegistrationId(12345).found);
    EXPECT_EQ(TempFiles(), 0);
}

TEST(ConfirmationReply, SubjectNamesKindAndIdentifier)
{
    for (const auto& row : ReadTable("tables/requests.txt", "subjects of replies")) {
        const ConfirmationSubject subject = ReadConfirmationSubject(row.at(0));
        EXPECT_EQ(subject.found
                      ? FormatText("%c %08X", "sua"[static_cast<int>(subject.kind)], subject.id)
                      : "none",
                  row.at(1))
            << row.at(0);
    }
}

TEST(ConfirmationReply, SaysOkOnALineOfItsOwn)
{
    for (const char* line : {"OK\r\n", "ok\n", "  Ok\r\n", "\t \toK \r\n", "OK it is\r\n", "ok\tx"})
        EXPECT_TRUE(SaysOk(line)) << line;
    for (const char* line : {"", "\r\n", "o", "OK", "OK.\r\n", "OK, thanks\r\n", "OK!\r\n",
                             "okay\r\n", "> OK\r\n", "Yes, OK\r\n", "OK\r", "O K\r\n", "\vOK\r\n"})
        EXPECT_FALSE(SaysOk(line)) << line;
}

}  // namespace dl::testing
