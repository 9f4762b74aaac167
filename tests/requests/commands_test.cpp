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
        {"SUBSCRIBE\n", "subscribe"},
        {"subscribers wanted\r\n", "subscribe"},
        {"   \t\v\f SUBSCRIBE Digest\r\n", "subscribe digest"},
        {"subscribe nodigest\r\n", "subscribe digest"},
        {"subscribe paul@example.org\r\n", "subscribe"},
        {"unsubscribe\r\n", "unsubscribe"},
        {"Unsubscribe me please, no digest\r\n", "unsubscribe"},
        {"archive registration\r\n", "archive"},
        {"Archive Registration (0000ABCD) digest\r\n", "archive"},
        {"archive  registration\r\n", "unknown"},
        {"\r\n", "unsubscribe"},
        {" \t \r\n", "unsubscribe"},
        {"", "unsubscribe"},
        {"digest\r\n", "unknown"},
        {"Hello\r\n", "unknown"},
        {"> subscribe\r\n", "unknown"},
        {"please subscribe\r\n", "unknown"},
        {"subscrib\r\n", "unknown"},
        {"\xef\xbb\xbfsubscribe\r\n", "unknown"},
        {"\xc2\xa0subscribe\r\n", "unknown"},
    };
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

constexpr char kMime[] = "Mime-Version: 1.0\n";

std::string Multipart(const std::string& subtype, const std::string& parts,
                      const std::string& more = kMime)
{
    return more + "Content-Type: multipart/" + subtype + "; boundary=b\n\npreamble\n" + parts +
           "--b--\n";
}

std::string Part(const std::string& type, const std::string& text)
{
    return "--b\n" + (type.empty() ? "" : "Content-Type: " + type + "\n") + "\n" + text + "\n";
}

TEST_F(Body, IsThatOfThePartThatTheRulesChoose)
{
    const std::string plain = Part("text/plain; charset=utf-8", "plain");
    const std::string html = Part("text/html", "<p>html");
    const std::string related =
        "--b\nContent-Type: multipart/related; boundary=c\n\n--c\nContent-Type: text/html\n\nA\n"
        "--c\nContent-Type: image/png\n\nB\n--c--\n\n";
    struct Row {
        const char* name;
        std::string message;
        std::string want;  // "\n" stands for CRLF
    };
    const Row rows[] = {
        {"no MIME", "Subject: x\n\nsubscribe\nbye\n", "subscribe\nbye\n"},
        {"no MIME but a multipart type", Multipart("mixed", html + plain, ""),
         "preamble\n" + html + plain + "--b--\n"},
        {"another MIME version", Multipart("mixed", html + plain, "Mime-Version: 2.0\n"),
         "preamble\n" + html + plain + "--b--\n"},
        {"plain", std::string(kMime) + "Content-Type: TEXT/Plain\n\nsubscribe\n", "subscribe\n"},
        {"no type", std::string(kMime) + "\nsubscribe\n", "subscribe\n"},
        {"base64",
         std::string(kMime) +
             "Content-Type: text/plain\nContent-Transfer-Encoding: base64\n\nc3Vic2NyaWJlDQo=\n",
         "subscribe\n"},
        {"quoted-printable",
         std::string(kMime) + "Content-Type: text/plain\nContent-Transfer-Encoding: "
                              "quoted-printable\n\nsub=\nscri=62e\n",
         "subscribe\n"},
        {"html alone", std::string(kMime) + "Content-Type: text/html\n\n<p>subscribe\n",
         "<p>subscribe\n"},
        {"mixed, plain first", Multipart("mixed", plain + html), "plain"},
        {"mixed, plain last", Multipart("mixed", html + plain), "plain"},
        {"mixed, no plain: the last", Multipart("mixed", html + Part("text/calendar", "CAL")),
         "CAL"},
        {"mixed, a part without a type is not plain",
         Multipart("mixed", Part("", "untyped") + html), "<p>html"},
        {"mixed, an alternative in it is not entered",
         Multipart("mixed",
                   "--b\nContent-Type: multipart/alternative; boundary=c\n\n--c\n"
                   "Content-Type: text/plain\n\ninner\n--c--\n\n" +
                       Part("image/png", "PNG")),
         "PNG"},
        {"mixed without parts",
         std::string(kMime) + "Content-Type: multipart/mixed; boundary=b\n\nsubscribe\n",
         "subscribe\n"},
        {"alternative, plain first", Multipart("alternative", plain + html), "plain"},
        {"alternative, html first: the walk stops there", Multipart("alternative", html + plain),
         "<p>html"},
        {"alternative, it goes on behind a part that has parts of its own",
         Multipart("alternative", related + plain), "plain"},
        {"alternative, but no further than that part's own number",
         Multipart("alternative", related + html + plain), "<p>html"},
        {"alternative with one part", Multipart("alternative", plain),
         "preamble\n" + plain + "--b--\n"},
        {"related", Multipart("related", plain + html), "preamble\n" + plain + html + "--b--\n"},
        {"an empty body", "Subject: x\n\n", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Text(row.message), Crlf(row.want));
    }
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

TEST_F(Body, ThatCannotBeReadIsNoCommand)
{
    for (int n = 1; n <= 4; ++n) {
        for (const FileCall call : {FileCall::kOpen, FileCall::kRead, FileCall::kCreate,
                                    FileCall::kWrite, FileCall::kClose}) {
            Start();
            const unsigned long id = Submit(kAnna, {kGardenRequest}, "Subject: x\n\nsubscribe\n");
            const int before = files.Made(call);
            files.FailNth(call, n);
            const std::string command = Say(GetRequestCommand(id));
            const bool failed = files.Made(call) >= before + n;
            EXPECT_EQ(command, failed ? "unknown" : "subscribe") << static_cast<int>(call) << n;
            EXPECT_EQ(TempFiles(), 0);
        }
    }
    EXPECT_EQ(Say(GetRequestCommand(12345)), "unknown") << "no such message";
}

TEST_F(Body, GivesTheIdentifierOfARegistration)
{
    struct Row {
        std::string body;
        bool found;
        std::uint32_t id;
    };
    const Row rows[] = {
        {"archive registration (0000ABCD)\r\n", true, 0xABCD},
        {"  ARCHIVE Registration (ffffFFFF)\r\n", true, 0xFFFFFFFF},
        {"archive registration (0000ABCD)", true, 0xABCD},
        {"Hello\r\narchive registration (0000ABCD)\r\n", true, 0xABCD},
        {"archive registrationx(0000ABCD) and more\r\n", true, 0xABCD},  // any character between
        {"archive registration (12xyzabc)\r\n", true, 0x12},
        {"archive registration (xyzxyzxy)\r\n", true, 0},
        {"archive registration(0000ABCD)\r\n", false, 0},
        {"archive registration  (0000ABCD)\r\n", false, 0},
        {"archive registration (0000ABC)\r\n", false, 0},
        {"archive registration (0000ABCD\r\n", false, 0},
        {"archive registration\r\n", false, 0},
        {"archive registration", true, 0},  // a text that ends without a line end
        {"no\r\nnothing", true, 0},
        {"", false, 0},
        {"no\r\n", false, 0},
        {"no\r\n \t\r\narchive registration (0000ABCD)\r\n", true, 0},  // a blank line ends it
        {std::string(1023, 'x'), false, 0},  // as long as the buffer: its end is not seen
        {std::string(1022, 'x'), true, 0},
    };
    for (const Row& row : rows) {
        const RegistrationId id = GetArchiveRegistrationId(
            Submit(kAnna, {kGardenRequest}, "Subject: x\r\n\r\n" + row.body));
        EXPECT_EQ(id.found, row.found) << row.body;
        EXPECT_EQ(id.id, row.id) << row.body;
    }
    EXPECT_FALSE(GetArchiveRegistrationId(12345).found);
    EXPECT_EQ(TempFiles(), 0);
}

TEST(ConfirmationReply, SubjectNamesKindAndIdentifier)
{
    struct Row {
        const char* line;
        const char* want;  // the kind's first letter and the id; "" is none
    };
    const Row rows[] = {
        {"Subject: Re: subscription confirmation request (0000ABCD)\r\n", "s 0000ABCD"},
        {"SUBJECT: AW: SUBSCRIPTION CONFIRMATION REQUEST (0000abcd)\r\n", "s 0000ABCD"},
        {"subject:subscription confirmation request (FFFFFFFF)", "s FFFFFFFF"},
        {"Subject: Re: unsubscription confirmation request (0000ABCD) [2]\r\n", "u 0000ABCD"},
        {"Subject: archive authentication confirmation request (0000ABCD)\r\n", "a 0000ABCD"},
        {"Subject: Re: subscription confirmation request\r\n", ""},
        {"Subject: Re: subscription confirmation request (ABCD)\r\n", ""},
        {"Subject: Re: subscription confirmation request (0000ABCD\r\n", ""},
        {"Subject: Re: subscription confirmation request (00000ABCD)\r\n", ""},
        {"Subject: Re: subscription confirmation request  (0000ABCD)\r\n", ""},
        {"Subject: Re: subscription confirmation request (../../ab)\r\n", ""},
        {"Subject: Re: subscription confirmation request (-0000001)\r\n", ""},
        {"Subject: Re: subscription confirmation request (0x00ABCD)\r\n", ""},
        {"Subject: =?utf-8?Q?subscription_confirmation_request_(0000ABCD)?=\r\n", ""},
        {"Subject: hello\r\n", ""},
        {"", ""},
    };
    for (const Row& row : rows) {
        const ConfirmationSubject subject = ReadConfirmationSubject(row.line);
        std::string got;
        if (subject.found) {
            char text[16];
            std::snprintf(text, sizeof text, "%c %08X", "sua"[static_cast<int>(subject.kind)],
                          subject.id);
            got = text;
        }
        EXPECT_EQ(got, row.want) << row.line;
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
