// The text that a request is read from, and what is read there.

#include "requests/commands.h"

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
    const std::pair<std::string, const char*> rows[] = {
        {"subscribe\r\n", "subscribe"},

        {"subscribers wanted\r\n", "subscribe"},
        {"   \t\v\f SUBSCRIBE Digest\r\n", "subscribe digest"},
        {"subscribe nodigest\r\n", "subscribe digest"},

        {"Unsubscribe me please, no digest\r\n", "unsubscribe"},

        {"Archive Registration (0000ABCD) digest\r\n", "archive"},
        {"archive  registration\r\n", "unknown"},
        {"\r\n", "unsubscribe"},

        {"", "unsubscribe"},
        {"digest\r\n", "unknown"},

        {"> subscribe\r\n", "unknown"},

        {"subscrib\r\n", "unknown"},
        {"\xef\xbb\xbfsubscribe\r\n", "unknown"}};
    for (const auto& [line, want] : rows)
        EXPECT_EQ(Say(ParseCommandLine(line)), want) << line;
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
    const std::string kReg = "archive registration";
    const std::pair<std::string, long> rows[] = {
        // -1: none is found
        {kReg + " (0000ABCD)\r\n", 0xABCD},
        {"  ARCHIVE Registration (ffffFFFF)\r\n", 0xFFFFFFFF},
        {kReg + " (0000ABCD)", 0xABCD},
        {"Hello\r\n" + kReg + " (0000ABCD)\r\n", 0xABCD},
        {kReg + "x(0000ABCD) and more\r\n", 0xABCD},  // any character between
        {kReg + " (12xyzabc)\r\n", 0x12},
        {kReg + "(0000ABCD)\r\n", -1},
        {kReg + "  (0000ABCD)\r\n", -1},
        {kReg + " (0000ABC)\r\n", -1},
        {kReg + " (0000ABCD\r\n", -1},
        {kReg + "\r\n", -1},
        {kReg, 0},  // a text that ends without a line end
        {"", -1},
        {"no\r\n", -1},
        {"no\r\n \t\r\n" + kReg + " (0000ABCD)\r\n", 0},  // a blank line ends it
        {std::string(1023, 'x'), -1},  // as long as the buffer: its end is not seen
        {std::string(1022, 'x'), 0},
    };
    for (const auto& [body, want] : rows) {
        const RegistrationId id =
            GetArchiveRegistrationId(Submit(kAnna, {kGardenRequest}, "Subject: x\r\n\r\n" + body));
        EXPECT_EQ(id.found ? static_cast<long>(id.id) : -1, want) << body;
    }
    EXPECT_FALSE(GetArchiveRegistrationId(12345).found);
    EXPECT_EQ(TempFiles(), 0);
}

TEST(ConfirmationReply, SubjectNamesKindAndIdentifier)
{
    const std::string kRe = "Subject: Re: subscription confirmation request";
    const std::pair<std::string, const char*> rows[] = {
        // the kind's first letter and the id; "" is none
        {kRe + " (0000ABCD)\r\n", "s 0000ABCD"},
        {"SUBJECT: AW: SUBSCRIPTION CONFIRMATION REQUEST (0000abcd)\r\n", "s 0000ABCD"},

        {"Subject: Re: unsubscription confirmation request (0000ABCD) [2]\r\n", "u 0000ABCD"},
        {"Subject: archive authentication confirmation request (0000ABCD)\r\n", "a 0000ABCD"},
        {kRe + "\r\n", ""},
        {kRe + " (ABCD)\r\n", ""},
        {kRe + " (0000ABCD\r\n", ""},

        {kRe + "  (0000ABCD)\r\n", ""},
        {kRe + " (../../ab)\r\n", ""},
        {kRe + " (-0000001)\r\n", ""},

        {"Subject: =?utf-8?Q?subscription_confirmation_request_(0000ABCD)?=\r\n", ""},

        {"", ""},
    };
    for (const auto& [line, want] : rows) {
        const ConfirmationSubject subject = ReadConfirmationSubject(line);
        std::string got;
        if (subject.found) {
            char text[16];
            std::snprintf(text, sizeof text, "%c %08X", "sua"[static_cast<int>(subject.kind)],
                          subject.id);
            got = text;
        }
        EXPECT_EQ(got, want) << line;
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
