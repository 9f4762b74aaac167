// One queue entry in memory while it is handed over: who waits, in which order, in which
// transactions.
//
// Recipients of one domain stand together, in the order of the envelope; those whose address needs
// SMTPUTF8 stand behind the others and share no transaction with them, or a relay further on that
// lacks it would refuse the message for all. Not locked: its owner does that.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/queue/delivery.h"
#include "platform/smtp/message_file.h"

namespace dl
{

// The recipients whose state is kWaiting, in the order in which they are handed over.
[[nodiscard]] std::vector<std::uint32_t> HandoverOrder(const CompactEnvelope& envelope,
                                                       const std::string& states);
// How many of `order` from `from` on make the next transaction of at most `limit`.
[[nodiscard]] std::size_t TransactionSize(const CompactEnvelope& envelope,
                                          const std::vector<std::uint32_t>& order, std::size_t from,
                                          std::size_t limit);

struct Job {
    Job(const DueEntry& due, DeliveryRecord&& read);

    // Nothing is left to be given to a connection.
    [[nodiscard]] bool AllAssigned() const { return next >= order.size() && again.empty(); }
    // The recipients of the next transaction.
    [[nodiscard]] std::vector<std::uint32_t> NextTransaction(std::size_t limit);
    // These are to be tried again in this pass.
    void TakeBack(const std::vector<std::uint32_t>& recipients);
    [[nodiscard]] std::size_t Count(RecipientState state) const;
    [[nodiscard]] RecipientState State(std::size_t recipient) const
    {
        return static_cast<RecipientState>(record.states[recipient]);
    }
    void Apply(const std::vector<RecipientAnswer>& answers);
    void KeepUnwritten(const std::vector<RecipientAnswer>& answers);

    const DueEntry entry;
    DeliveryRecord record;  // its states have a byte for each recipient
    smtp::MessageFile message;
    std::vector<std::uint32_t> order;
    std::size_t next = 0;              // of `order`
    std::vector<std::uint32_t> again;  // when `order` is through
    std::size_t limit = 0;             // what the relay takes in one transaction, 0: not known
    int in_flight = 0;                 // transactions that some connection has
    std::uint64_t served = 0;          // the turn in which it last got a connection
    std::vector<RecipientAnswer> unwritten;  // that the queue could not take
};

}  // namespace dl
