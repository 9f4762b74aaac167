#include "tools/dlsend/report.h"

#include <ctime>
#include <random>

#include "platform/address/address.h"
#include "platform/clock/clock.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "tools/dlsend/answer.h"

namespace dl
{
namespace
{

constexpr char kMark[] = "X-DL-Delivery-Report:";
constexpr std::size_t kMarkReach = 65'536;  // bytes of a message that are looked at
constexpr std::size_t kMostHeaders = 65'536;
constexpr std::size_t kMostLine = 900;   // bytes; RFC 5322 allows 998
constexpr std::size_t kMostNamed = 100;  // recipients in the part for people
constexpr std::size_t kMostText = 500;

std::string DateText(std::int64_t seconds)
{
    const std::time_t when = seconds;
    std::tm date{};
    char text[48];
    gmtime_r(&when, &date);
    // English names: this program keeps the "C" locale.
    std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S +0000", &date);
    return text;
}

std::string Boundary(unsigned long id)
{
    std::random_device random;
    return FormatText("=_dl_%08lX_%08x%08x", id, random(), random());
}

bool WriteHeader(FileWriter& out, const ReportFacts& facts, const std::string& boundary)
{
    const char* host = facts.host_name.c_str();
    return out.Print("Message-ID: <dlsend.%08lX.%llx@%s>\r\n", facts.id,
                     static_cast<unsigned long long>(NowMicroseconds()), host) &&
           out.Print("Date: %s\r\n", DateText(Now()).c_str()) &&
           out.Print("From: Mail delivery <postmaster@%s>\r\n", host) &&
           out.Print("To: <%s>\r\n", facts.sender.c_str()) &&
           out.Print("Subject: Undelivered mail\r\n") &&
           out.Print("Auto-Submitted: auto-replied\r\n%s %08lX\r\n", kMark, facts.id) &&
           out.Print(
               "MIME-Version: 1.0\r\nContent-Transfer-Encoding: 8bit\r\nContent-Type: "
               "multipart/report;"
               " report-type=delivery-status;\r\n\tboundary=\"%s\"\r\n\r\n",
               boundary.c_str());
}

bool WriteText(FileWriter& out, const ReportFacts& facts, const std::string& boundary,
               const EachFailed& failed)
{
    std::size_t count = 0;
    const auto line = [&](const FailedRecipient& one) {
        if (++count > kMostNamed)
            return true;
        const std::string answer = CleanText(one.answer, kMostText);
        return out.Print("  <%s>\r\n    %s%s\r\n", CleanText(one.address, kMostText).c_str(),
                         one.given_up ? "given up, last answer: " : "",
                         answer.empty() ? "no answer" : answer.c_str());
    };
    return out.Print(
               "--%s\r\nContent-Type: text/plain; charset=utf-8\r\n"
               "Content-Transfer-Encoding: 8bit\r\n\r\n",
               boundary.c_str()) &&
           out.Print(
               "The mailing-list manager at %s could not deliver a message that came in\r\n"
               "on %s to these recipients:\r\n\r\n",
               facts.host_name.c_str(), DateText(facts.arrived).c_str()) &&
           failed(line) &&
           (count <= kMostNamed ||
            out.Print("\r\nand %zu more, which the next part names.\r\n", count - kMostNamed)) &&
           out.Print("\r\nThe message's header is attached.\r\n\r\n");
}

bool WriteBlock(FileWriter& out, const ReportFacts& facts, const FailedRecipient& one)
{
    const Answer answer = ParseAnswer(one.answer);
    if (!out.Print("\r\nFinal-Recipient: %s\r\nAction: failed\r\nStatus: %s\r\n",
                   AddressField(one.address).c_str(), StatusField(answer, one.given_up).c_str()))
        return false;
    if (!facts.relay_host.empty() && answer.code != 0 &&
        !out.Print("Remote-MTA: dns; %s\r\n", CleanAscii(facts.relay_host, kMostText).c_str()))
        return false;
    return one.answer.empty() ||
           out.Print("Diagnostic-Code: %s; %s\r\n", answer.code != 0 ? "smtp" : "x-local",
                     CleanAscii(one.answer, kMostText).c_str());
}

bool WriteStatus(FileWriter& out, const ReportFacts& facts, const std::string& boundary,
                 const EachFailed& failed)
{
    return out.Print("--%s\r\nContent-Type: message/delivery-status\r\n\r\n", boundary.c_str()) &&
           out.Print("Reporting-MTA: dns; %s\r\nArrival-Date: %s\r\n", facts.host_name.c_str(),
                     DateText(facts.arrived).c_str()) &&
           failed([&](const FailedRecipient& one) { return WriteBlock(out, facts, one); }) &&
           out.Print("\r\n");
}

// The header's lines as they are, but that each ends with CRLF; a relay may refuse the report for
// one that is longer than RFC 5322 allows, so such a line is folded.
bool WriteOriginal(FileWriter& out, const ReportFacts& facts, const std::string& boundary)
{
    if (!out.Print("--%s\r\nContent-Type: text/rfc822-headers; charset=utf-8\r\n"
                   "Content-Transfer-Encoding: 8bit\r\n\r\n",
                   boundary.c_str()))
        return false;
    LineReader in(facts.message_path);  // a missing one leaves the part empty
    std::size_t written = 0;
    bool folds = false;  // the line began in the piece before
    while (const auto read = in.IsOpen() ? in.NextPiece(kMostLine) : std::nullopt) {
        const bool whole = read->ends_with('\n');
        std::string line(*read);
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
            line.pop_back();
        for (char& c : line)
            if (c == '\r' || c == '\0')
                c = ' ';
        written += line.size();
        if ((line.empty() && !folds) || written > kMostHeaders)
            break;
        if (!line.empty() && !out.Write((folds ? " " : "") + line + "\r\n"))
            return false;
        folds = !whole;
    }
    return out.Print("\r\n--%s--\r\n", boundary.c_str());
}

}  // namespace

bool CanBeTold(const std::string& sender)
{
    RT parsed;
    return sender != "<>" && RecipParse(sender, &parsed, 1) == 1;
}

// A forwarded report has another sender than its own null one: without this look, a list owner who
// cannot be reached would be told so for ever.
bool CarriesReport(const std::string& message_path)
{
    LineReader in(message_path);
    std::size_t seen = 0;
    bool line_start = true;
    while (const auto piece =
               in.IsOpen() && seen < kMarkReach ? in.NextPiece(4096) : std::nullopt) {
        if (line_start && StartsWithNoCase(*piece, kMark))
            return true;
        line_start = piece->ends_with('\n');
        seen += piece->size();
    }
    return false;
}

bool WriteReport(const MQContext* entry, const ReportFacts& facts, const EachFailed& failed)
{
    FileWriter out(GetMQPathName(entry, ".msg"), "wb");
    const std::string boundary = Boundary(facts.id);
    return out.IsOpen() && WriteHeader(out, facts, boundary) &&
           WriteText(out, facts, boundary, failed) && WriteStatus(out, facts, boundary, failed) &&
           WriteOriginal(out, facts, boundary) && out.Close();
}

bool AddressReport(stEnvelope* envelope, const std::string& sender, const std::string& channel)
{
    _envFrom from;
    from.address = "<>";
    from.channel = envelope->Text(channel);
    _envRecip to;
    to.address = envelope->Text(sender);
    to.channel = from.channel;
    return envelope->AddSender(from) && envelope->AddRecipient(to);
}

}  // namespace dl
