#include <algorithm>
#include <cstring>

#include "platform/address/address.h"
#include "platform/mime/encodings.h"
#include "platform/mime/posting_private.h"

namespace dl
{
namespace
{

constexpr std::size_t kMaxHeaderText = 8000;  // bytes of one shown header
constexpr std::size_t kMaxIdentifier = 998;
constexpr std::size_t kMaxAddresses = 100'000;

struct DateUnref {
    void operator()(GDateTime* date) const { g_date_time_unref(date); }
};
std::string Cut(std::string text)
{
    if (text.size() <= kMaxHeaderText)
        return text;
    std::size_t end = kMaxHeaderText;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
        --end;
    text.resize(end);
    return text;
}

std::string Trimmed(const std::string& text)
{
    constexpr const char* kBlanks = " \t\r\n";
    const std::size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string::npos)
        return "";
    return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

const char* Header(const MimeMessage& message, const char* name)
{
    return g_mime_object_get_header(GMIME_OBJECT(message.gmime.get()), name);
}

// The message identifiers of a header, in their order: what stands in angle brackets, without its
// blanks. Lenient, as what it reads is: many programs write identifiers without '@'.
std::vector<std::string> Identifiers(const char* header)
{
    std::vector<std::string> all;
    std::string current;
    bool open = false;
    for (; header && *header; ++header) {
        const char c = *header;
        if (c == '<') {
            open = true;
            current.clear();
        } else if (c == '>' && open) {
            open = false;
            if (!current.empty())
                all.push_back(current);
        } else if (open && static_cast<unsigned char>(c) > ' ') {
            current += c;
        }
    }
    return all;
}

// As it is kept: readable, and never longer than an honest one.
std::string Identifier(const std::string& id)
{
    const std::string text = ReadableText(id.c_str());
    return text.size() > kMaxIdentifier ? "sha256:" + Sha256Hex(text) : text;
}

void ReadReferences(const MimeMessage& message, Posting* posting)
{
    auto& all = posting->references;
    for (const char* name : {"References", "In-Reply-To"}) {
        const std::vector<std::string> ids = Identifiers(Header(message, name));
        for (auto id = ids.rbegin(); id != ids.rend() && all.size() < Posting::kMaxReferences;
             ++id) {
            const std::string text = Identifier(*id);
            if (text != posting->message_id && std::find(all.begin(), all.end(), text) == all.end())
                all.push_back(text);
        }
    }
}

// Adds the mailboxes of a list and of the groups in it, as many as may be shown.
void AddMailboxes(InternetAddressList* list, int depth, std::vector<PostingMailbox>* out,
                  std::size_t* more)
{
    const int count = list ? internet_address_list_length(list) : 0;
    for (int i = 0; i < count && *more < kMaxAddresses; ++i) {
        InternetAddress* entry = internet_address_list_get_address(list, i);
        if (INTERNET_ADDRESS_IS_GROUP(entry)) {
            if (depth < 3)
                AddMailboxes(internet_address_group_get_members(INTERNET_ADDRESS_GROUP(entry)),
                             depth + 1, out, more);
            continue;
        }
        if (out->size() >= Posting::kMaxRecipients) {
            ++*more;
            continue;
        }
        out->push_back({Cut(Trimmed(ReadableText(internet_address_get_name(entry)))),
                        Cut(ReadableText(
                            internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(entry))))});
    }
}

void ReadSender(const MimeMessage& message, Posting* posting)
{
    std::vector<PostingMailbox> from;
    std::size_t more = 0;
    AddMailboxes(g_mime_message_get_from(message.gmime.get()), 0, &from, &more);
    if (from.empty())
        AddMailboxes(g_mime_message_get_sender(message.gmime.get()), 0, &from, &more);
    if (!from.empty()) {
        posting->from = from.front();
    } else if (const char* header = Header(message, "From")) {
        char* text = g_mime_utils_header_decode_text(nullptr, header);
        posting->from.name = Cut(Trimmed(ReadableText(text)));
        g_free(text);
    }
}

void SetDate(GDateTime* date, Posting* posting)
{
    posting->date = g_date_time_to_unix(date);
    posting->zone_minutes = static_cast<int>(g_date_time_get_utc_offset(date) / G_TIME_SPAN_MINUTE);
}

void ReadDate(const MimeMessage& message, Posting* posting)
{
    if (GDateTime* date = g_mime_message_get_date(message.gmime.get())) {
        SetDate(date, posting);  // the message's
        return;
    }
    const char* received = Header(message, "Received");
    const char* stamp = received ? std::strrchr(received, ';') : nullptr;
    if (!stamp)
        return;
    const std::unique_ptr<GDateTime, DateUnref> date(g_mime_utils_header_decode_date(stamp + 1));
    if (date)
        SetDate(date.get(), posting);
}

}  // namespace

std::string ReadableText(const char* text)
{
    return text ? DecodeForReading(text, "utf-8") : "";
}

std::string Sha256Hex(std::string_view bytes)
{
    char* digest = g_compute_checksum_for_data(
        G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(bytes.data()), bytes.size());
    std::string text(digest);
    g_free(digest);
    return text;
}

void ReadPostingHeader(const MimeMessage& message, Posting* posting)
{
    GMimeMessage* gmime = message.gmime.get();
    const char* own = Header(message, "Message-ID");
    const std::vector<std::string> ids = Identifiers(own);
    posting->message_id = Identifier(ids.empty() ? Trimmed(own ? own : "") : ids.front());
    ReadReferences(message, posting);
    posting->subject = Cut(Trimmed(ReadableText(g_mime_message_get_subject(gmime))));
    ReadSender(message, posting);
    AddMailboxes(g_mime_message_get_to(gmime), 0, &posting->to, &posting->more_recipients);
    AddMailboxes(g_mime_message_get_cc(gmime), 0, &posting->cc, &posting->more_recipients);
    ReadDate(message, posting);
}

}  // namespace dl
