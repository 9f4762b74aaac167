// A message as GMime's parser reads it, for the files of this folder only.
//
// The parser reads from the first byte to the last and never goes back; it sees what BoundedView
// leaves of the message. It takes a read error for the end of the message, so whoever parsed asks
// Failed(). The parser's streams of the parts' bodies are there for their bounds only and cannot be
// read: bodies are read from where the message is.
#pragma once

#include <gmime/gmime.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "platform/mime/bounded_view.h"

namespace dl
{

class BoundedMessage
{
 public:
    // Reads exactly `size` bytes at `from`; false when it cannot.
    using Reader = std::function<bool(std::int64_t from, char* bytes, std::size_t size)>;

    BoundedMessage(std::int64_t size, Reader reader)
        : size_(size), reader_(std::move(reader)), view_(size)
    {
    }

    [[nodiscard]] const BoundedView& View() const { return view_; }
    [[nodiscard]] std::int64_t Size() const { return size_; }
    [[nodiscard]] bool Failed() const { return failed_; }
    // Reads up to `size` of the next bytes; 0 at the end, -1 on a read error.
    [[nodiscard]] ssize_t Read(char* bytes, std::size_t size);

 private:
    bool Fill();

    std::int64_t size_;
    Reader reader_;
    BoundedView view_;
    bool failed_ = false;
    std::string buffer_;
    std::size_t given_ = 0;    // bytes of the buffer
    std::size_t settled_ = 0;  // bytes of the buffer that may be given
    std::int64_t read_ = 0;    // how far the message has been read
};

// A stream over the message, which must outlive it.
[[nodiscard]] GMimeStream* NewMessageStream(BoundedMessage* message);

}  // namespace dl
