#include "platform/mime/rfc822.h"

#include <utility>

#include "platform/mime/gmime_private.h"

namespace dl
{
namespace
{

constexpr int kMaxGroups = 10;  // groups within groups, which no honest header has

std::string Text(const char* text)
{
    return text ? text : "";
}

void AppendAddresses(InternetAddressList* list, const std::string& host, int depth,
                     std::string* text)
{
    const int count = list && depth < kMaxGroups ? internet_address_list_length(list) : 0;
    for (int i = 0; i < count; ++i) {
        InternetAddress* address = internet_address_list_get_address(list, i);
        if (INTERNET_ADDRESS_IS_GROUP(address)) {
            AppendAddresses(internet_address_group_get_members(INTERNET_ADDRESS_GROUP(address)),
                            host, depth + 1, text);
            continue;
        }
        std::string mailbox =
            Text(internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(address)));
        if (mailbox.find('@') == std::string::npos)
            mailbox += "@" + host;
        const std::string name = Text(internet_address_get_name(address));
        *text += text->empty() ? "" : ", ";
        if (name.empty())
            *text += mailbox;
        else
            text->append(name).append(" <").append(mailbox).append(">");
    }
}

std::string Addresses(GMimeMessage* message, GMimeAddressType type, const std::string& host)
{
    std::string text;
    AppendAddresses(g_mime_message_get_addresses(message, type), host, 0, &text);
    return text;
}

std::string HeaderText(GMimeObject* object, const char* name)
{
    return Text(g_mime_object_get_header(object, name));
}

mail_envelope ReadEnvelope(GMimeMessage* message, const std::string& host)
{
    GMimeObject* object = GMIME_OBJECT(message);
    mail_envelope envelope;
    envelope.date = HeaderText(object, "Date");
    envelope.subject = HeaderText(object, "Subject");
    envelope.message_id = HeaderText(object, "Message-ID");
    envelope.in_reply_to = HeaderText(object, "In-Reply-To");
    envelope.from = Addresses(message, GMIME_ADDRESS_TYPE_FROM, host);
    envelope.sender = Addresses(message, GMIME_ADDRESS_TYPE_SENDER, host);
    envelope.reply_to = Addresses(message, GMIME_ADDRESS_TYPE_REPLY_TO, host);
    envelope.to = Addresses(message, GMIME_ADDRESS_TYPE_TO, host);
    envelope.cc = Addresses(message, GMIME_ADDRESS_TYPE_CC, host);
    envelope.bcc = Addresses(message, GMIME_ADDRESS_TYPE_BCC, host);
    return envelope;
}

mail_body ReadBody(GMimeObject* object, const std::string& host, int depth)
{
    mail_body body;
    GMimeContentType* type = g_mime_object_get_content_type(object);
    body.type = Text(g_mime_content_type_get_media_type(type));
    body.subtype = Text(g_mime_content_type_get_media_subtype(type));
    body.encoding = HeaderText(object, "Content-Transfer-Encoding");
    body.id = HeaderText(object, "Content-ID");
    body.description = HeaderText(object, "Content-Description");
    body.disposition = HeaderText(object, "Content-Disposition");
    if (depth >= kMaxDepth)
        return body;
    if (GMIME_IS_MULTIPART(object)) {
        GMimeMultipart* multipart = GMIME_MULTIPART(object);
        const int count = g_mime_multipart_get_count(multipart);
        for (int i = 0; i < count; ++i)
            body.parts.push_back(
                ReadBody(g_mime_multipart_get_part(multipart, i), host, depth + 1));
    } else if (GMIME_IS_MESSAGE_PART(object)) {
        GMimeMessage* message = g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
        GMimeObject* top = message ? g_mime_message_get_mime_part(message) : nullptr;
        if (top) {
            body.envelope = std::make_unique<mail_envelope>(ReadEnvelope(message, host));
            body.parts.push_back(ReadBody(top, host, depth + 1));
        }
    } else if (GMIME_IS_PART(object)) {
        GMimeDataWrapper* content = g_mime_part_get_content(GMIME_PART(object));
        GMimeStream* stream = content ? g_mime_data_wrapper_get_stream(content) : nullptr;
        if (stream) {
            body.offset = stream->bound_start;
            body.size = g_mime_stream_length(stream);
        }
    }
    return body;
}

// Reads two texts as if they were one.
BoundedMessage::Reader ReaderOf(std::string_view header, std::string_view text)
{
    return [=](std::int64_t from, char* bytes, std::size_t size) {
        const auto begin = static_cast<std::size_t>(from);
        const std::size_t first = begin < header.size() ? header.copy(bytes, size, begin) : 0;
        return first == size || text.copy(bytes + first, size - first,
                                          begin + first - header.size()) == size - first;
    };
}

}  // namespace

bool rfc822_parse_msg_full(mail_envelope* envelope, mail_body* body, std::string_view header,
                           const mail_string& text, const std::string& host)
{
    *envelope = {};
    *body = {};
    StartGMime();
    BoundedMessage bounded(static_cast<std::int64_t>(header.size() + text.bytes.size()),
                           ReaderOf(header, text.bytes));
    const GObjectPtr<GMimeStream> stream(NewMessageStream(&bounded));
    const GObjectPtr<GMimeMessage> message = ParseStream(stream.get());
    if (bounded.View().HasTooManyDashes())
        return false;
    GMimeObject* top = message ? g_mime_message_get_mime_part(message.get()) : nullptr;
    if (!top)
        return false;
    *envelope = ReadEnvelope(message.get(), host);
    *body = ReadBody(top, host, 0);
    return true;
}

void mail_free_envelope(mail_envelope* envelope)
{
    *envelope = {};
}

void mail_free_body(mail_body* body)
{
    *body = {};
}

}  // namespace dl
