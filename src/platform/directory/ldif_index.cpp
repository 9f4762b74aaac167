#include "platform/directory/ldif_index.h"

#include <algorithm>
#include <functional>

#include "platform/directory/ldif_edit.h"

namespace dl
{

void LdifIndex::Add(const LdifRecord& record)
{
    constexpr std::size_t kMostValues = 1'000'000;
    holds_base_ = holds_base_ || (name_ && record.name.IsAtOrBelow(*name_));
    for (const LdifLine& line : record.lines) {
        if (!complete_ || !NameAnswers(kAttribute, line.name))
            continue;
        complete_ = values_.size() < kMostValues;
        values_.push_back({std::hash<std::string>{}(ValueKey(kAttribute, line.value)),
                           {record.begin, record.line}});
    }
}

void LdifIndex::Finish()
{
    if (!complete_)
        values_.clear();
    values_.shrink_to_fit();
    std::sort(values_.begin(), values_.end(), [](const Value& a, const Value& b) {
        return a.hash != b.hash ? a.hash < b.hash : a.place.begin < b.place.begin;
    });
}

std::optional<std::vector<LdifPlace>> LdifIndex::Find(const std::vector<std::string>& keys) const
{
    if (!complete_)
        return std::nullopt;
    std::vector<LdifPlace> places;
    for (const std::string& key : keys) {
        const std::uint64_t hash = std::hash<std::string>{}(key);
        auto value = std::lower_bound(values_.begin(), values_.end(), hash,
                                      [](const Value& a, std::uint64_t b) { return a.hash < b; });
        for (; value != values_.end() && value->hash == hash; ++value)
            places.push_back(value->place);
    }
    const auto by_place = [](const LdifPlace& a, const LdifPlace& b) { return a.begin < b.begin; };
    const auto same = [](const LdifPlace& a, const LdifPlace& b) { return a.begin == b.begin; };
    std::sort(places.begin(), places.end(), by_place);
    places.erase(std::unique(places.begin(), places.end(), same), places.end());
    return places;
}

std::shared_ptr<const LdifIndex> LdifIndexes::Get(const std::string& path, const struct stat& state)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto found = files_.find(path);
    return found != files_.end() && SameState(found->second.state, state) ? found->second.index
                                                                          : nullptr;
}

void LdifIndexes::Put(const std::string& path, const struct stat& state,
                      std::shared_ptr<const LdifIndex> index)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    files_[path] = {state, std::move(index)};
}

}  // namespace dl
