#include "platform/mime/bounce_mime_message.h"

#include <algorithm>
#include <ctime>
#include <random>

#include "platform/address/address.h"
#include "platform/address/utf8.h"
#include "platform/clock/clock.h"
#include "platform/config/config.h"
#include "platform/files/files.h"
#include "platform/log/format.h"
#include "platform/log/log.h"
#include "platform/log/log_hold.h"
#include "platform/mime/mime.h"
#include "platform/queue/queue.h"

namespace dl
{
namespace
{

// A message without an empty line is all header; a report need not carry it all.
constexpr std::int64_t kMaxHeader = 65536;
constexpr std::size_t kMaxLine = 900;        // bytes; RFC 5322 allows 998
constexpr std::size_t kMaxDiagnostic = 400;  // of the reason's copy for programs

bool IsControl(char c)
{
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

bool IsAscii(char c)
{
    return static_cast<unsigned char>(c) < 0x80;
}

// Everything but ASCII becomes '?', so do control characters.
std::string AsciiLine(std::string text)
{
    for (char& c : text)
        if (IsControl(c) || !IsAscii(c))
            c = '?';
    return text;
}

// One line of UTF-8 for a reader's eyes.
std::string TextLine(std::string text)
{
    if (!IsUtf8(text))
        return AsciiLine(std::move(text));
    std::replace_if(text.begin(), text.end(), IsControl, '?');
    return text;
}

// The address field of a status report: "rfc822;" and the address, or, where that needs UTF-8, its
// form in ASCII (RFC 6533, 3: utf-8-addr-xtext).
std::string ReportedAddress(const std::string& address)
{
    if (std::all_of(address.begin(), address.end(), IsAscii) || !IsUtf8(address))
        return "rfc822;" + AsciiLine(address);
    std::string text = "utf-8;";
    for (std::size_t i = 0; i < address.size();) {
        const auto lead = static_cast<unsigned char>(address[i]);
        const std::size_t length = lead < 0x80 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
        unsigned point = length == 1 ? lead : lead & (0x7fU >> length);
        for (std::size_t k = 1; k < length; ++k)
            point = point << 6 | (static_cast<unsigned char>(address[i + k]) & 0x3fU);
        if (point > 0x20 && point < 0x7f && point != '\\' && point != '+' && point != '=')
            text += static_cast<char>(point);
        else
            text += FormatText("\\x{%02X}", point);
        i += length;
    }
    return text;
}

struct Host {
    std::string name;    // of this mail host
    std::string serial;  // of the message: no other has it, and nobody can guess it
    std::string date;
    std::string entry;
};

std::string LocalDate()
{
    const std::time_t now = Now();
    std::tm local{};
    localtime_r(&now, &local);
    DateRecord date;
    date.year = local.tm_year + 1900;
    date.month = local.tm_mon + 1;
    date.day = local.tm_mday;
    date.hour = local.tm_hour;
    date.minute = local.tm_min;
    date.second = local.tm_sec;
    date.zone_minutes = static_cast<std::int32_t>(local.tm_gmtoff / 60);
    return UTC2rfc(date);
}

Host ThisHost(const std::string& entry)
{
    const auto read = [](const char* key) {
        return GetPrivateProfileString("Connection", key, "", 128, kMainConfig);
    };
    std::random_device random;
    return {read("GatewayHostName") + "." + read("GatewayDomain"),
            FormatText("%08x%08x", random(), random()), LocalDate(), entry};
}

std::string Header(const Host& host, const BounceDescription& description)
{
    return FormatText(
        "Received: from DL manager by %s\r\n  (KVT Quorvane 5.0) id %s; %s\r\n"
        "Message-ID: <%s.%s@%s>\r\n"
        "Date: %s\r\n"
        "From: postmaster@%s\r\n"
        "To: %s\r\n"
        "Subject: unable to deliver mail\r\n"
        "Auto-Submitted: auto-replied\r\n"
        "Mime-version: 1.0\r\n"
        "Content-transfer-encoding: 8bit\r\n"
        "Content-type: multipart/report; report-type=delivery-status;\r\n"
        "  boundary=\"KVT.Boundary.%s\"\r\n\r\n",
        host.name.c_str(), host.entry.c_str(), host.date.c_str(), host.entry.c_str(),
        host.serial.c_str(), host.name.c_str(), host.date.c_str(), host.name.c_str(),
        TextLine(description.recipient).c_str(), host.serial.c_str());
}

// `text` in lines of at most kMaxLine bytes, never cut within a character.
std::string Wrapped(const std::string& text, const char* indent)
{
    std::string lines;
    for (std::size_t from = 0; from < text.size() || from == 0;) {
        std::size_t length = std::min(kMaxLine, text.size() - from);
        while (from + length < text.size() && length > 1 &&
               (static_cast<unsigned char>(text[from + length]) & 0xc0) == 0x80)
            --length;
        lines += indent + text.substr(from, length) + "\r\n";
        from += std::max<std::size_t>(length, 1);
    }
    return lines;
}

std::string TextPart(const BounceDescription& description, const std::vector<std::string>& reasons)
{
    std::string text =
        "Content-type: text/plain; charset=utf-8\r\n"
        "Content-transfer-encoding: 8bit\r\n\r\n"
        "\tThis message was bounced to you because of the following reason(s):"
        "\r\n\r\n";
    for (const std::string& reason : reasons)
        text += Wrapped(TextLine(reason), "\t");
    return text + "\r\n\tIt was addressed to:\r\n\r\n" +
           Wrapped(TextLine(description.refused), "\t");
}

std::string StatusPart(const Host& host, const BounceDescription& description,
                       const std::vector<std::string>& reasons)
{
    const std::string reason = reasons.empty() ? "refused" : AsciiLine(reasons.front());
    return FormatText(
        "Content-type: message/delivery-status\r\n\r\n"
        "Reporting-MTA: dns; %s\r\n\r\n"
        "Final-Recipient: %s\r\n"
        "Action: failed\r\n"
        "Status: 5.7.1\r\n"
        "Diagnostic-Code: X-DL-Manager; %s\r\n",
        AsciiLine(host.name).c_str(), ReportedAddress(description.refused).c_str(),
        reason.substr(0, kMaxDiagnostic).c_str());
}

// The header of the refused message, with line ends and bytes that 8bit text may have (RFC 2045,
// 2.8).
bool CopyHeader(const std::string& path, FileWriter* out)
{
    LineReader in(path);
    if (!in.IsOpen() || !out->Write("Content-type: text/rfc822-headers\r\n"
                                    "Content-transfer-encoding: 8bit\r\n\r\n"))
        return false;
    std::int64_t copied = 0;
    bool line_open = false;  // a piece of a long line was copied, the rest comes
    while (const auto piece = in.NextPiece(kMaxLine)) {
        const bool ends = !piece->empty() && piece->back() == '\n';
        std::string line(piece->substr(0, piece->size() - (ends ? 1 : 0)));
        if (ends && !line.empty() && line.back() == '\r')
            line.pop_back();
        copied += static_cast<std::int64_t>(line.size()) + 2;
        if ((ends && !line_open && line.empty()) || copied > kMaxHeader)
            return true;
        const bool goes_on = line_open;
        line_open = !ends;
        if (goes_on && line.empty())
            continue;
        std::replace_if(
            line.begin(), line.end(), [](char c) { return IsControl(c) && c != '\t'; }, '?');
        if (!out->Write((goes_on ? "  " : "") + line + "\r\n"))
            return false;
    }
    return !in.Failed();
}

bool WriteReport(const std::string& path, const Host& host, const std::string& refused_message,
                 const BounceDescription& description, const std::vector<std::string>& reasons)
{
    FileWriter out(path, "wb");
    const std::string delimiter = "--KVT.Boundary." + host.serial;
    return out.IsOpen() && out.Write(Header(host, description)) &&
           out.Write(delimiter + "\r\n" + TextPart(description, reasons)) &&
           out.Write("\r\n" + delimiter + "\r\n" + StatusPart(host, description, reasons)) &&
           out.Write("\r\n" + delimiter + "\r\n") && CopyHeader(refused_message, &out) &&
           out.Write("\r\n" + delimiter + "--\r\n") && out.Close();
}

}  // namespace

int BounceMimeMessage(const std::string& base_path, const BounceDescription& description,
                      const std::vector<std::string>& reasons)
{
    RT parsed;
    if (description.type != "DSN" || description.refused.empty() ||
        RecipParse(description.recipient, &parsed, 1) != 1)
        return -1;
    NewMQEntry entry;
    if (!entry)
        return -1;
    const std::string path = GetMQPathName(entry.get(), ".msg");
    const std::string id = BaseName(path);
    if (!WriteReport(path, ThisHost(id), base_path + ".msg", description, reasons))
        return -1;
    const std::int64_t size = FileSize(path);
    const std::string& recipient = parsed.addresses[0].full;
    stEnvelope envelope;
    _envFrom from;
    from.address = "<>";
    from.text = description.text;
    from.flags = description.flag;
    from.text2 = description.text2;
    from.channel = kOutputChannel;
    _envRecip to;
    to.address = recipient;
    if (!envelope.AddSender(from) || !envelope.AddRecipient(to) ||
        Submit(std::move(entry), kOutputChannel, 0, &envelope) != Submission::kDone)
        return -1;
    PromiseLines(nullptr);
    DlLog(3, "Bounced %s size: %ld bytes to: <%s>", id.c_str(), static_cast<long>(size),
          recipient.c_str());
    return 0;
}

}  // namespace dl
