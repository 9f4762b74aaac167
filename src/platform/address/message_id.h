// The Message-ID (RFC 5322, 3.6.4) of a message that passes by in pieces: the intake logs it, and
// by it a postmaster asks what became of a message.
//
// Only the header is looked at, and of it 256 KB at most; of the value 250 bytes are kept.
#pragma once

#include <string>
#include <string_view>

namespace dl
{

class MessageIdFinder
{
 public:
    void Read(std::string_view piece);
    // The value as it stands in the header, folds as blanks; "none" when there is none.
    [[nodiscard]] std::string Text() const;

 private:
    void EndLine();
    std::string line_;
    std::string value_;
    std::size_t seen_ = 0;
    bool in_value_ = false;
    bool done_ = false;
};

}  // namespace dl
