// cList: a singly linked list of values with one cursor, in which envelopes carry senders and
// recipients.
//
// The list owns its nodes, never what its values point to: whoever adds a value frees it. Adding at
// the cursor of the last Add is one step, so filling a list of 100,000 recipients is linear. One
// thread at a time.
#pragma once

#include <cstdint>
#include <new>
#include <utility>

namespace dl
{

template <typename T>
class cList
{
 public:
    struct Node {
        T value;
        Node* next;
    };

    cList() = default;
    ~cList() { Clear(); }
    cList(const cList&) = delete;
    cList& operator=(const cList&) = delete;
    cList(cList&& other) noexcept
        : head(std::exchange(other.head, nullptr)),
          cursor(std::exchange(other.cursor, nullptr)),
          count(std::exchange(other.count, 0))
    {
    }

    // Appends at the end; the cursor moves to the new node. Null, and nothing changed, when out of
    // memory.
    T Add(T value)
    {
        Node* node = new (std::nothrow) Node{value, nullptr};
        if (!node)
            return T{};
        Node* last = cursor ? cursor : head;
        while (last && last->next)
            last = last->next;
        (last ? last->next : head) = node;
        cursor = node;
        ++count;
        return value;
    }

    // The value after the cursor, or the first when there is no cursor; null at the end, without
    // moving.
    T Next()
    {
        Node* node = cursor ? cursor->next : head;
        if (!node)
            return T{};
        cursor = node;
        return node->value;
    }

    void Clear()
    {
        while (head)
            delete std::exchange(head, head->next);
        cursor = nullptr;
        count = 0;
    }

    Node* head = nullptr;
    Node* cursor =
        nullptr;  // node of the last Add or Next; a caller sets it to null to walk from the start
    std::int32_t count = 0;
};

}  // namespace dl
