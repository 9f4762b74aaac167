// What the parser is shown of a message: each of its bytes in its place, but for header fields that
// are larger, deeper or more than an honest message has.
//
// The parser makes objects of fields, up to a hundred bytes of memory for one of mail, and follows
// groups of addresses into each other without end. So whatever stands beyond a bound is blanked
// before the parser sees it: line ends stay, and with them all offsets. Header fields are looked
// for in all lines, also of bodies, since parts and attached messages may begin anywhere; bodies
// are never read through this view. Counting is dumb on purpose: quotes, escapes and comments,
// which could hide what is counted, are not understood. Nothing here logs. One thread per object.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace dl
{

class BoundedView
{
 public:
    // Bytes of one field that the parser may make something of.
    static constexpr std::int64_t kMaxField = 65'536;

    // `size`: of the message, in bytes. A larger one may have more.
    explicit BoundedView(std::int64_t size);

    // Bounds the next bytes of the message in place. Gives how many of them are settled; the others
    // come again, in front of those that follow. With `last`, when none follow, all are settled.
    std::size_t Bound(char* bytes, std::size_t size, bool last);

    // Whether there are more lines that may delimit parts than the parser's time should be spent
    // on.
    [[nodiscard]] bool HasTooManyDashes() const { return dash_lines_ >= kMaxDashLines; }
    // Whether a field in [from, to) was changed that rules how a body is read.
    [[nodiscard]] bool ChangedBetween(std::int64_t from, std::int64_t to) const;

 private:
    static constexpr std::int64_t kMaxDashLines = 100'000;
    static constexpr int kKinds = 4;
    static constexpr int kAddressNames = 6;
    enum class Kind { kOther, kText, kAddress, kRuling };

    bool BeginLine(std::string_view rest, bool last);
    void BeginField(std::string_view name);
    [[nodiscard]] static Kind KindOf(std::string_view name);
    void EndHeader();
    std::size_t PassLine(char* bytes, std::size_t at, std::size_t size);
    void BoundByte(char* byte, std::int64_t offset);
    [[nodiscard]] bool Exceeds(char byte);
    [[nodiscard]] bool ExceedsMultiparts(char byte);
    void NoteChange(std::int64_t offset);
    [[nodiscard]] std::int64_t& Budget();

    std::array<std::int64_t, kKinds> budgets_{};  // what fields of each kind may still cost
    std::array<int, kAddressNames> seen_{};       // fields of each name in this header
    bool addressed_ = false;                      // there were some
    std::int64_t offset_ = 0;                     // of the next bytes in the message
    std::int64_t dash_lines_ = 0;
    int multiparts_ = 0;
    std::vector<std::int64_t> changes_;  // offsets, rising
    bool line_begins_ = true;

    // Of the field that is being read.
    Kind kind_ = Kind::kOther;
    bool rules_type_ = false;  // it is a Content-Type
    bool named_ = false;       // its colon has passed
    bool over_ = false;        // all that follows is blanked
    bool ended_ = false;       // its text has been ended
    bool marked_ = false;      // it may say multipart, and was counted
    bool encoded_ = false;     // it has an encoded word
    std::int64_t weight_ = 1;  // of one byte
    std::int64_t bytes_ = 0;
    int colons_ = 0;
    int comments_ = 0;
    int commas_ = 0;
    char before_ = '\0';
    std::size_t matched_ = 0;  // characters of "multipart"
};

}  // namespace dl
