// The message that is being handled, as every generator of an answer gets it. Owned by the
// dispatcher.
#pragma once

#include <string>

#include "platform/queue/queue.h"

namespace dl
{

struct Incoming {
    MQContext* channel = nullptr;  // its current message is this one
    unsigned long id = 0;
    stEnvelope* envelope = nullptr;

    // Envelope sender (RFC 5321, 4.1.1.2); "<>" for the null reverse-path.
    [[nodiscard]] std::string Sender() const { return envelope->SenderAddress(); }
    [[nodiscard]] std::string MessagePath() const { return GetMQPathName(channel, ".msg"); }
};

// `text` as it may stand in a header line or a sentence: control characters, line breaks first of
// all, become '?', so that no address can add a header or a body part.
[[nodiscard]] std::string OneLine(const std::string& text);

// The addresses of a list, from its own: "<local>-owner@<domain>" and "<local>-request@<domain>".
// Empty when `list` is no address, or memory runs out.
[[nodiscard]] std::string OwnerAddress(const std::string& list);
[[nodiscard]] std::string RequestAddress(const std::string& list);

// An owner or request address in parts: the list's local part is the first `length` characters of
// `local`.
struct ListAlias {
    std::string local;
    std::string domain;
    int length = 0;
    // The list's address; empty when the alias was no address, or memory runs out.
    [[nodiscard]] std::string List() const;
};
// Splits `address`, whose local part ends in a suffix of so many characters. All is empty when it
// is no address or its local part is no longer than that, or memory runs out.
[[nodiscard]] ListAlias SplitAlias(const std::string& address, std::size_t suffix);

inline constexpr std::size_t kOwnerSuffix = 6;    // "-owner"
inline constexpr std::size_t kRequestSuffix = 8;  // "-request"

}  // namespace dl
