// What the queue's front shares among its files: the contexts, and the back end that is open.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "platform/queue/queue_backend.h"

namespace dl
{

// A channel that is read has a reader, a new entry has none.
class MQContext
{
 public:
    explicit MQContext(std::shared_ptr<QueueBackend> queue) : backend(std::move(queue)) {}

    std::shared_ptr<QueueBackend> backend;
    std::optional<std::int64_t> reader;
    std::optional<std::uint32_t> current;  // of a reader
    PendingEntry entry;
};

// The one that MQInit opened or a test installed; null before.
std::shared_ptr<QueueBackend> OpenedQueue();

}  // namespace dl
