#include "platform/queue/envelope.h"

#include <bit>
#include <cstring>

#include "platform/queue/delivery.h"
#include "platform/queue/queue_backend.h"

namespace dl
{

namespace
{

constexpr std::size_t kTextBlock = 4096;

// An element stays in `owned` only when the list took it.
template <typename Element>
bool AddElement(const Element& element, std::deque<Element>* owned, cList<Element*>* list)
{
    try {
        owned->push_back(element);
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (list->Add(&owned->back()))
        return true;
    owned->pop_back();
    return false;
}

}  // namespace

bool stEnvelope::AddSender(const _envFrom& sender)
{
    return AddElement(sender, &own_senders_, &senders);
}

bool stEnvelope::AddRecipient(const _envRecip& recipient)
{
    return AddElement(recipient, &own_recipients_, &recipients);
}

// Texts are packed into blocks that never grow beyond what they reserved, so views into them stay
// good.
std::string_view stEnvelope::Text(std::string_view text)
{
    if (texts_.empty() || texts_.back().capacity() - texts_.back().size() < text.size()) {
        texts_.emplace_back();
        texts_.back().reserve(text.size() < kTextBlock ? kTextBlock : text.size());
    }
    std::string& block = texts_.back();
    const std::size_t begin = block.size();
    block.append(text);
    return std::string_view(block).substr(begin);
}

std::string stEnvelope::SenderAddress() const
{
    if (!senders.head || senders.head->value->address.empty())
        return "<>";
    return std::string(senders.head->value->address);
}

void stEnvelope::Clear()
{
    senders.Clear();
    recipients.Clear();
    own_senders_.clear();
    own_recipients_.clear();
    texts_.clear();
}

namespace
{

// The blob: a version byte, then the two words and the two counts, then the elements, senders
// first. Integers are 32-bit little-endian; a text is its length, seven bits a byte with the low
// ones first and as few bytes as hold it, and its bytes.
constexpr char kFormat = 1;
constexpr std::size_t kHeadBytes = 1 + 4 * 4;
constexpr std::size_t kLeastSender = 4 + 2 * 4;  // four empty texts, two integers
constexpr std::size_t kLeastRecipient = 4 + 4;   // four empty texts, one integer

class Writer
{
 public:
    explicit Writer(std::string* out) : out_(*out) {}

    void Int(std::int32_t value)
    {
        const auto bits = std::bit_cast<std::uint32_t>(value);
        for (int shift = 0; shift < 32; shift += 8)
            out_ += static_cast<char>((bits >> shift) & 0xff);
    }

    void Text(std::string_view text)
    {
        std::size_t size = text.size();
        for (; size >= 0x80; size >>= 7)
            out_ += static_cast<char>((size & 0x7f) | 0x80);
        out_ += static_cast<char>(size);
        out_ += text;
    }

 private:
    std::string& out_;
};

// Every read is checked; after the first that does not fit, all give nothing and Good() is false.
class Reader
{
 public:
    explicit Reader(std::string_view bytes) : rest_(bytes) {}

    std::int32_t Int()
    {
        const std::string_view bytes = Take(4);
        std::uint32_t bits = 0;
        for (std::size_t i = bytes.size(); i > 0; --i)
            bits = bits << 8 | static_cast<unsigned char>(bytes[i - 1]);
        return std::bit_cast<std::int32_t>(bits);
    }

    std::string_view Text()
    {
        std::uint64_t size = 0;
        for (int shift = 0;; shift += 7) {
            const std::string_view one = Take(1);
            if (one.empty())
                return {};
            const auto byte = static_cast<unsigned char>(one[0]);
            size |= std::uint64_t{byte & 0x7fU} << shift;
            if (!(byte & 0x80)) {
                if (byte == 0 && shift > 0)
                    good_ = false;  // longer than needed: one text would have many spellings
                break;
            }
            if (shift == 28) {
                good_ = false;
                break;
            }
        }
        return Take(size);
    }

    // Whether `count` elements of at least `least` bytes can still follow: a count is never
    // believed before that.
    bool Fits(std::int32_t count, std::size_t least)
    {
        good_ = good_ && count >= 0 && static_cast<std::size_t>(count) <= rest_.size() / least;
        return good_;
    }

    [[nodiscard]] std::size_t Left() const { return rest_.size(); }
    [[nodiscard]] bool Good() const { return good_; }
    [[nodiscard]] bool AtEnd() const { return good_ && rest_.empty(); }

 private:
    std::string_view Take(std::uint64_t size)
    {
        good_ = good_ && size <= rest_.size();
        if (!good_)
            return {};
        const std::string_view bytes = rest_.substr(0, size);
        rest_.remove_prefix(size);
        return bytes;
    }

    std::string_view rest_;
    bool good_ = true;
};

}  // namespace

std::string EncodeEnvelope(const stEnvelope& envelope)
{
    std::size_t bytes = kHeadBytes;
    for (auto* node = envelope.recipients.head; node; node = node->next)
        bytes += kLeastRecipient + 8 + node->value->address.size();
    std::string blob;
    blob.reserve(bytes);
    blob += kFormat;
    Writer out(&blob);
    out.Int(envelope.first);
    out.Int(envelope.following);
    out.Int(envelope.senders.count);
    out.Int(envelope.recipients.count);
    for (auto* node = envelope.senders.head; node; node = node->next) {
        const _envFrom& sender = *node->value;
        out.Text(sender.address);
        out.Text(sender.text);
        out.Int(sender.flags);
        out.Int(sender.number);
        out.Text(sender.text2);
        out.Text(sender.channel);
    }
    for (auto* node = envelope.recipients.head; node; node = node->next) {
        const _envRecip& recipient = *node->value;
        out.Text(recipient.address);
        out.Text(recipient.text);
        out.Int(recipient.number);
        out.Text(recipient.text2);
        out.Text(recipient.channel);
    }
    return blob;
}

namespace
{

_envFrom ReadSender(Reader& in)
{
    _envFrom sender;
    sender.address = in.Text();
    sender.text = in.Text();
    sender.flags = in.Int();
    sender.number = in.Int();
    sender.text2 = in.Text();
    sender.channel = in.Text();
    return sender;
}

_envRecip ReadRecipient(Reader& in)
{
    _envRecip recipient;
    recipient.address = in.Text();
    recipient.text = in.Text();
    recipient.number = in.Int();
    recipient.text2 = in.Text();
    recipient.channel = in.Text();
    return recipient;
}

}  // namespace

std::unique_ptr<stEnvelope> DecodeEnvelope(std::string_view blob)
{
    if (blob.empty() || blob[0] != kFormat)
        return nullptr;
    auto envelope = std::make_unique<stEnvelope>();
    Reader in(envelope->Text(blob.substr(1)));  // one copy, which all texts view
    envelope->first = in.Int();
    envelope->following = in.Int();
    const std::int32_t senders = in.Int();
    const std::int32_t recipients = in.Int();
    if (!in.Fits(senders, kLeastSender) || !in.Fits(recipients, kLeastRecipient))
        return nullptr;
    for (std::int32_t i = 0; i < senders && in.Good(); ++i) {
        if (!envelope->AddSender(ReadSender(in)))
            return nullptr;
    }
    for (std::int32_t i = 0; i < recipients && in.Good(); ++i) {
        if (!envelope->AddRecipient(ReadRecipient(in)))
            return nullptr;
    }
    if (!in.AtEnd())
        return nullptr;
    envelope->senders.cursor = nullptr;
    envelope->recipients.cursor = nullptr;
    return envelope;
}

std::optional<CompactEnvelope> DecodeCompact(std::string blob)
{
    CompactEnvelope envelope;
    envelope.blob_ = std::move(blob);
    const std::string_view bytes = envelope.blob_;
    if (bytes.empty() || bytes[0] != kFormat || bytes.size() > 0xFFFFFFFFU)
        return std::nullopt;
    Reader in(bytes.substr(1));
    (void)in.Int();  // the two words are not needed here
    (void)in.Int();
    const std::int32_t senders = in.Int();
    const std::int32_t recipients = in.Int();
    if (!in.Fits(senders, kLeastSender) || !in.Fits(recipients, kLeastRecipient))
        return std::nullopt;
    for (std::int32_t i = 0; i < senders && in.Good(); ++i) {
        const _envFrom sender = ReadSender(in);
        if (i == 0)
            envelope.sender_ = sender.address;
    }
    envelope.offsets_.reserve(static_cast<std::size_t>(recipients));
    for (std::int32_t i = 0; i < recipients && in.Good(); ++i) {
        envelope.offsets_.push_back(static_cast<std::uint32_t>(bytes.size() - in.Left()));
        (void)ReadRecipient(in);
    }
    if (!in.AtEnd())
        return std::nullopt;
    if (envelope.sender_.empty())
        envelope.sender_ = "<>";
    return envelope;
}

std::string_view CompactEnvelope::Recipient(std::size_t index) const
{
    return Reader(std::string_view(blob_).substr(offsets_[index])).Text();
}

}  // namespace dl
