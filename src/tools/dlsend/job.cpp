#include "tools/dlsend/job.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "platform/address/address.h"

namespace dl
{
namespace
{

std::string_view Domain(std::string_view address)
{
    return address.substr(address.rfind('@') + 1);
}

bool NeedsUtf8(std::string_view address)
{
    return std::any_of(address.begin(), address.end(),
                       [](char c) { return (static_cast<unsigned char>(c) & 0x80) != 0; });
}

struct NoCaseHash {
    std::size_t operator()(std::string_view text) const
    {
        std::size_t hash = 14695981039346656037U;  // FNV-1a
        for (const char c : text) {
            const char lower = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
            hash = (hash ^ static_cast<unsigned char>(lower)) * 1099511628211U;
        }
        return hash;
    }
};

struct NoCaseEqual {
    bool operator()(std::string_view a, std::string_view b) const { return EqualNoCase(a, b); }
};

}  // namespace

std::vector<std::uint32_t> HandoverOrder(const CompactEnvelope& envelope, const std::string& states)
{
    struct Group {
        std::uint32_t size = 0;
        bool utf8 = false;
    };
    std::unordered_map<std::string_view, std::uint32_t, NoCaseHash, NoCaseEqual> numbers[2];
    std::vector<Group> groups;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> members;  // group, recipient
    for (std::uint32_t i = 0; i < envelope.Count(); ++i) {
        if (static_cast<RecipientState>(states[i]) != RecipientState::kWaiting)
            continue;
        const std::string_view address = envelope.Recipient(i);
        const bool utf8 = NeedsUtf8(address);
        const auto [place, is_new] = numbers[utf8 ? 1 : 0].try_emplace(
            Domain(address), static_cast<std::uint32_t>(groups.size()));
        if (is_new)
            groups.push_back({0, utf8});
        ++groups[place->second].size;
        members.emplace_back(place->second, i);
    }
    std::vector<std::uint32_t> begins(groups.size());
    std::uint32_t begin = 0;
    for (const bool utf8 : {false, true})
        for (std::size_t i = 0; i < groups.size(); ++i)
            if (groups[i].utf8 == utf8) {
                begins[i] = begin;
                begin += groups[i].size;
            }
    std::vector<std::uint32_t> order(members.size());
    for (const auto& [group, recipient] : members)
        order[begins[group]++] = recipient;
    return order;
}

std::size_t TransactionSize(const CompactEnvelope& envelope,
                            const std::vector<std::uint32_t>& order, std::size_t from,
                            std::size_t limit)
{
    const auto address = [&](std::size_t place) { return envelope.Recipient(order[place]); };
    std::size_t end = from + std::min(limit, order.size() - from);
    if (end == from)
        return 0;
    const bool utf8 = NeedsUtf8(address(from));
    for (std::size_t place = from; place < end; ++place)
        if (NeedsUtf8(address(place)) != utf8)
            return place - from;
    if (end == order.size() || !EqualNoCase(Domain(address(end - 1)), Domain(address(end))))
        return end - from;
    // A domain would be cut in two: it waits for the next transaction when this one is half full.
    std::size_t begin = end - 1;
    while (begin > from && EqualNoCase(Domain(address(begin - 1)), Domain(address(end))))
        --begin;
    return begin - from >= (limit + 1) / 2 ? begin - from : end - from;
}

Job::Job(const DueEntry& due, DeliveryRecord&& read) : entry(due), record(std::move(read))
{
    if (record.states.empty())
        record.states.assign(record.envelope.Count(), '\0');
    order = HandoverOrder(record.envelope, record.states);
}

std::vector<std::uint32_t> Job::NextTransaction(std::size_t most)
{
    if (next >= order.size()) {
        order = std::exchange(again, {});
        next = 0;
    }
    if (limit != 0)
        most = std::min(most, limit);
    const std::size_t size = TransactionSize(record.envelope, order, next, most);
    const auto begin = order.begin() + static_cast<std::ptrdiff_t>(next);
    next += size;
    return {begin, begin + static_cast<std::ptrdiff_t>(size)};
}

void Job::TakeBack(const std::vector<std::uint32_t>& recipients)
{
    again.insert(again.end(), recipients.begin(), recipients.end());
}

std::size_t Job::Count(RecipientState state) const
{
    return static_cast<std::size_t>(
        std::count(record.states.begin(), record.states.end(), static_cast<char>(state)));
}

void Job::Apply(const std::vector<RecipientAnswer>& answers)
{
    for (const RecipientAnswer& answer : answers)
        record.states[answer.recipient] = static_cast<char>(answer.state);
}

void Job::KeepUnwritten(const std::vector<RecipientAnswer>& answers)
{
    unwritten.insert(unwritten.end(), answers.begin(), answers.end());
}

}  // namespace dl
