// The envelope of a queued message: its senders and its recipients (RFC 5321, 2.3.1).
//
// The fields and their order are the queue's own. An envelope owns its elements and, through
// `texts`, the bytes that their texts view; Text() puts a copy there, a text that outlives the
// envelope may be viewed as it is. Move-only; one thread at a time.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "platform/queue/clist.h"

namespace dl
{

struct _envFrom {
    std::string_view address = {};
    std::string_view text = {};
    std::int32_t flags = 0;
    std::int32_t number = 0;
    std::string_view text2 = {};
    std::string_view channel = {};  // the channel into which the entry is put
};

struct _envRecip {
    std::string_view address = {};
    std::string_view text = {};
    std::int32_t number = 0;
    std::string_view text2 = {};
    std::string_view channel =
        {};  // the one that the recipient is meant for; empty in new envelopes
};

struct stEnvelope {
    std::int32_t first = 0;
    cList<_envFrom*> senders;
    cList<_envRecip*> recipients;
    std::int32_t following = 0;

    stEnvelope() = default;
    stEnvelope(stEnvelope&&) = default;
    stEnvelope& operator=(stEnvelope&&) = delete;

    // Makes an element that the envelope owns and adds it to its list. False when out of memory;
    // nothing changed then.
    [[nodiscard]] bool AddSender(const _envFrom& sender);
    [[nodiscard]] bool AddRecipient(const _envRecip& recipient);
    // A copy of `text` that lives as long as the envelope.
    std::string_view Text(std::string_view text);
    // The first sender's address; "<>" when there is no sender or its address is empty.
    [[nodiscard]] std::string SenderAddress() const;
    // Frees all elements and texts and clears both lists.
    void Clear();

 private:
    std::deque<_envFrom> own_senders_;
    std::deque<_envRecip> own_recipients_;
    std::deque<std::string> texts_;
};

}  // namespace dl
