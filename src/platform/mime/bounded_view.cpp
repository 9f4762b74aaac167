#include "platform/mime/bounded_view.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/address/address.h"

namespace dl
{
namespace
{

constexpr std::size_t kMaxBeginning = 64;  // bytes of a line that tell which field it is
constexpr int kMaxColons = 250;            // of an address field: groups within groups
constexpr int kMaxComments = 100;          // that are open at once
constexpr int kMaxMultiparts = 150;        // each looks at all delimiters within it
constexpr std::size_t kMaxChanges = 10'000;
constexpr int kNoCommas = 1 << 30;  // more than a field has
constexpr std::string_view kMultipart = "multipart";

constexpr std::string_view kAddressFields[] = {"From", "Sender", "Reply-To", "To", "Cc", "Bcc"};
constexpr std::string_view kTextFields[] = {
    "Subject", "Date", "Message-ID", "In-Reply-To", "References", "MIME-Version", "Received"};
constexpr std::string_view kRulingPrefix = "Content-";

// Which characters begin a line that has to be looked at.
std::array<bool, 256> FirstCharacters()
{
    std::array<bool, 256> first{};
    const auto add = [&first](char c) {
        for (const char one : {c, static_cast<char>(c | 0x20)})
            first[static_cast<unsigned char>(one)] = true;
    };
    for (const std::string_view field : kAddressFields)
        add(field.front());
    for (const std::string_view field : kTextFields)
        add(field.front());
    add(kRulingPrefix.front());
    for (const char c : {'-', '\r'})
        first[static_cast<unsigned char>(c)] = true;
    return first;
}

// What the fields of one kind may cost in all: `base`, and one for each `share` bytes of the
// message. A byte costs 1. Measured: an address of two bytes takes 300 bytes of memory, a parameter
// as much, an encoded word in yet another charset 40 microseconds. At each comma that stands in no
// mailbox the parser looks through the rest of the field, 8 nanoseconds a byte.
struct Cost {
    std::int64_t base = 0;
    std::int64_t share = 1;
    std::int64_t field = 0;      // of each field besides its bytes
    std::int64_t word = 0;       // of an encoded word
    std::int64_t parameter = 0;  // of a ';' or '='
    std::int64_t encoded = 1;    // of a byte behind an encoded word, which may hold parameters
    int commas = 1;              // each so many of them make a byte behind them cost 1 more
};
constexpr Cost kCosts[] = {
    {},                                          // other fields are only kept
    {1 << 20, 16, 16, 200, 0, 1, kNoCommas},     // texts, identifiers, dates
    {65'536, 128, 64, 25, 0, 1, 128},            // addresses
    {1 << 20, 16, 16, 200, 100, 12, kNoCommas},  // Content-Type and its like
};

bool IsBlank(char c)
{
    return c == ' ' || c == '\t';
}

// The field's name, from the beginning of a line up to its colon; empty when it has none.
std::string_view NameOf(std::string_view beginning)
{
    std::size_t end = 0;
    while (end < beginning.size() && !IsBlank(beginning[end]) && beginning[end] != ':')
        ++end;
    if (end == beginning.size())
        return {};
    const std::size_t colon = beginning.find_first_not_of(" \t", end);
    const bool may_be = colon == std::string_view::npos || beginning[colon] == ':';
    return may_be ? beginning.substr(0, end) : std::string_view();
}

}  // namespace

BoundedView::BoundedView(std::int64_t size)
{
    for (std::size_t kind = 0; kind < budgets_.size(); ++kind)
        budgets_[kind] = kCosts[kind].base + size / kCosts[kind].share;
}

std::int64_t& BoundedView::Budget()
{
    return budgets_[static_cast<std::size_t>(kind_)];
}

std::size_t BoundedView::Bound(char* bytes, std::size_t size, bool last)
{
    std::size_t at = 0;
    while (at < size) {
        if (line_begins_ && bytes[at] == '\n') {
            EndHeader();
            ++at;
            continue;
        }
        if (line_begins_ && !BeginLine({bytes + at, size - at}, last))
            break;
        at = PassLine(bytes, at, size);
        line_begins_ = bytes[at - 1] == '\n';
    }
    offset_ += static_cast<std::int64_t>(at);
    return at;
}

// Finds out which field the line belongs to. False when more of it must be seen for that.
bool BoundedView::BeginLine(std::string_view rest, bool last)
{
    static const std::array<bool, 256> kFirstCharacters = FirstCharacters();
    const std::string_view beginning = rest.substr(0, kMaxBeginning);
    if (IsBlank(beginning.front()))
        return true;  // it continues the line before
    if (!kFirstCharacters[static_cast<unsigned char>(beginning.front())]) {
        kind_ = Kind::kOther;
        return true;
    }
    std::size_t end = 0;
    while (end < beginning.size() && beginning[end] != ':' && beginning[end] != '\n')
        ++end;
    if (end == beginning.size() && end < kMaxBeginning && !last)
        return false;
    if (beginning.starts_with("--"))
        ++dash_lines_;
    else if (beginning.starts_with("\r\n"))
        EndHeader();
    BeginField(NameOf(beginning.substr(0, end + 1)));
    return true;
}

void BoundedView::BeginField(std::string_view name)
{
    kind_ = name.empty() ? Kind::kOther : KindOf(name);
    if (kind_ == Kind::kOther)
        return;
    rules_type_ = EqualNoCase(name, "Content-Type");
    weight_ = 1;
    for (std::size_t i = 0; kind_ == Kind::kAddress && i < std::size(kAddressFields); ++i)
        if (EqualNoCase(name, kAddressFields[i]))
            weight_ = ++seen_[i];  // the parser reads those before it again
    addressed_ = addressed_ || kind_ == Kind::kAddress;
    named_ = over_ = ended_ = marked_ = encoded_ = false;
    bytes_ = 0;
    colons_ = comments_ = commas_ = 0;
    before_ = '\0';
    matched_ = 0;
    Budget() -= kCosts[static_cast<std::size_t>(kind_)].field * weight_;
}

BoundedView::Kind BoundedView::KindOf(std::string_view name)
{
    const auto in = [name](const auto& fields) {
        return std::any_of(std::begin(fields), std::end(fields),
                           [name](std::string_view field) { return EqualNoCase(name, field); });
    };
    if (StartsWithNoCase(name, kRulingPrefix))
        return Kind::kRuling;
    if (in(kAddressFields))
        return Kind::kAddress;
    return in(kTextFields) ? Kind::kText : Kind::kOther;
}

void BoundedView::EndHeader()
{
    kind_ = Kind::kOther;
    if (std::exchange(addressed_, false))
        seen_.fill(0);
}

// Bounds the bytes from `at` to the end of the line, or what is there of it; gives where that is.
std::size_t BoundedView::PassLine(char* bytes, std::size_t at, std::size_t size)
{
    const void* feed = std::memchr(bytes + at, '\n', size - at);
    const std::size_t end =
        feed ? static_cast<std::size_t>(static_cast<const char*>(feed) - bytes) + 1 : size;
    for (; kind_ != Kind::kOther && at < end; ++at)
        BoundByte(bytes + at, offset_ + static_cast<std::int64_t>(at));
    return end;
}

void BoundedView::BoundByte(char* byte, std::int64_t offset)
{
    if (*byte == '\r' || *byte == '\n')
        return;
    if (!over_ && Exceeds(*byte)) {
        over_ = true;
        NoteChange(offset);
    }
    const bool multipart = rules_type_ && ExceedsMultiparts(*byte);
    before_ = *byte;
    const bool ends_name = !named_ && *byte == ':';
    if (over_ && !named_ && !ends_name)
        *byte = 'x';  // a field of no meaning, but not the rest of the one before
    else if (over_ && named_)
        *byte = std::exchange(ended_, true) ? ' ' : '\0';  // where the parser's text of it ends
    else if (multipart)
        *byte = 'x';
    if (multipart)
        NoteChange(offset);
    named_ = named_ || ends_name;
}

// Counts the next byte of a field.
bool BoundedView::Exceeds(char byte)
{
    const Cost& cost = kCosts[static_cast<std::size_t>(kind_)];
    const bool word = before_ == '=' && byte == '?';
    encoded_ = encoded_ || word;
    commas_ += byte == ',' ? 1 : 0;
    std::int64_t price = (encoded_ ? cost.encoded : 1) + commas_ / cost.commas;
    if (word)
        price += cost.word;
    else if (byte == ';' || byte == '=')
        price += cost.parameter;
    colons_ += byte == ':' && kind_ == Kind::kAddress ? 1 : 0;
    if (byte == '(')
        ++comments_;
    else if (byte == ')' && before_ != '\\' && comments_ > 0)
        --comments_;
    Budget() -= price * weight_;
    return ++bytes_ > kMaxField || colons_ > kMaxColons || comments_ > kMaxComments || Budget() < 0;
}

// Whether the byte ends what may name one multipart more than the parser should look into: the word
// itself, or an encoded word, which may hold it.
bool BoundedView::ExceedsMultiparts(char byte)
{
    const char lower = byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
    matched_ = lower == kMultipart[matched_] ? matched_ + 1 : lower == kMultipart[0] ? 1 : 0;
    const bool word = matched_ == kMultipart.size();
    if (word)
        matched_ = 0;
    if (!word && !(before_ == '=' && byte == '?'))
        return false;
    if (!marked_)
        ++multiparts_;
    marked_ = true;
    return multiparts_ > kMaxMultiparts;
}

void BoundedView::NoteChange(std::int64_t offset)
{
    if (kind_ == Kind::kRuling && changes_.size() < kMaxChanges)
        changes_.push_back(offset);
}

bool BoundedView::ChangedBetween(std::int64_t from, std::int64_t to) const
{
    if (changes_.size() == kMaxChanges && to > changes_.back())
        return true;  // of what followed it is not known
    const auto first = std::lower_bound(changes_.begin(), changes_.end(), from);
    return first != changes_.end() && *first < to;
}

}  // namespace dl
