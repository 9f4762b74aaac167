#include "platform/directory/ldif_change.h"
#include "platform/address/utf8.h"

#include <algorithm>
#include <unordered_map>

namespace dl
{
namespace
{

LdifChange Refuse(std::string reason)
{
    return {ModifyResult::kRefused, std::move(reason), {}};
}

// The same for two values of an entry that a server takes for one.
std::string Key(std::string_view name, std::string_view value)
{
    return ValueKey("", name) + '\0' + ValueKey(name, value);
}

const char* Fault(std::string_view name, std::string_view value)
{
    if (!IsAttributeName(name) || SameName(name, "dn") || SameName(name, "changetype"))
        return "not an attribute name";
    return IsUtf8(value) ? nullptr : "a value that is not UTF-8";
}

// The values of one entry while they are being changed.
class Values
{
 public:
    explicit Values(const LdifRecord& record) : record_(record)
    {
        for (const LdifLine& line : record.lines)
            Put(line.name, line.value, places_.size());
        for (const auto& [name, value] : record.name.own)
            own_.push_back(Key(name, value));
    }

    LdifChange Add(const std::string& name, const std::string& value)
    {
        if (places_.contains(Key(name, value)))
            return {ModifyResult::kAlready, {}, {}};
        if (IsSingleValued(name) && counts_[ValueKey("", name)] > 0)
            return Refuse(name + " has a value");
        added_.push_back({name, value});
        Put(name, value, record_.lines.size() + added_.size() - 1);
        return {};
    }

    LdifChange Remove(const std::string& name, const std::string& value)
    {
        const std::string key = Key(name, value);
        // Several, when a hand has written the value twice: none of them may stay.
        const auto [first, last] = places_.equal_range(key);
        if (first == last)
            return {ModifyResult::kNotThere, {}, {}};
        if (std::find(own_.begin(), own_.end(), key) != own_.end())
            return Refuse("the value names the entry");
        for (auto place = first; place != last; ++place)
            removed_.push_back(place->second);
        counts_[ValueKey("", name)] -= std::distance(first, last);
        places_.erase(first, last);
        return {};
    }

    [[nodiscard]] std::vector<LdifEdit> Edits(const LdifEnd& end) const;

 private:
    void Put(std::string_view name, std::string_view value, std::size_t place)
    {
        places_.emplace(Key(name, value), place);
        counts_[ValueKey("", name)]++;
    }

    [[nodiscard]] std::uint64_t PlaceFor(const std::string& name) const
    {
        for (auto line = record_.lines.rbegin(); line != record_.lines.rend(); ++line)
            if (SameName(line->name, name))
                return line->end;
        return record_.End();
    }

    const LdifRecord& record_;
    std::unordered_multimap<std::string, std::size_t> places_;  // beyond the record's: of added_
    std::unordered_map<std::string, std::ptrdiff_t> counts_;
    std::vector<std::pair<std::string, std::string>> added_;
    std::vector<std::size_t> removed_;
    std::vector<std::string> own_;
};

std::vector<LdifEdit> Values::Edits(const LdifEnd& end) const
{
    std::vector<LdifEdit> edits;
    std::vector<bool> dropped(added_.size(), false);  // added and removed again
    for (const std::size_t place : removed_) {
        if (place >= record_.lines.size())
            dropped[place - record_.lines.size()] = true;
        else
            edits.push_back({record_.lines[place].begin, record_.lines[place].end, {}});
    }
    std::unordered_map<std::string, LdifEdit> inserts;  // by attribute, behind its last value
    for (std::size_t i = 0; i < added_.size(); i++) {
        if (dropped[i])
            continue;
        const auto& [name, value] = added_[i];
        LdifEdit& insert = inserts[ValueKey("", name)];
        if (insert.text.empty()) {
            insert.begin = insert.end = PlaceFor(name);
            if (insert.begin == end.size && !end.line_ended)
                insert.text = record_.LineEnd();
        }
        insert.text += LdifText(name, value, record_.crlf);
    }
    for (auto& [name, insert] : inserts)
        edits.push_back(std::move(insert));
    std::stable_sort(edits.begin(), edits.end(), [](const LdifEdit& a, const LdifEdit& b) {
        return a.begin != b.begin ? a.begin < b.begin : a.end < b.end;
    });
    return edits;
}

}  // namespace

LdifChange PlanModify(const LdifRecord& record, const LdifEnd& end,
                      const std::vector<AttributeChange>& changes)
{
    Values values(record);
    for (const AttributeChange& change : changes) {
        if (const char* fault = Fault(change.name, change.value))
            return Refuse(fault);
        LdifChange one = change.operation == AttributeChange::Operation::kAdd
                             ? values.Add(change.name, change.value)
                             : values.Remove(change.name, change.value);
        if (one.result != ModifyResult::kDone)
            return one;
    }
    return {ModifyResult::kDone, {}, values.Edits(end)};
}

LdifChange PlanAdd(const std::string& dn, const EntryName& name,
                   const std::vector<SearchAttribute>& attributes, const LdifEnd& end)
{
    LdifRecord record;
    record.crlf = end.crlf;
    Values values(record);
    std::string text;
    if (!end.line_ended)
        text += record.LineEnd();
    if (!end.empty_line)
        text += record.LineEnd();
    text += LdifText("dn", dn, end.crlf);
    bool has_class = false;
    if (!IsUtf8(dn))
        return Refuse("a name that is not UTF-8");
    for (const SearchAttribute& attribute : attributes) {
        const std::string written(attribute.name);
        if (const char* fault = Fault(written, attribute.value))
            return Refuse(fault);
        if (values.Add(written, attribute.value).result != ModifyResult::kDone)
            return Refuse(written + " is given twice");
        has_class = has_class || SameName(written, "objectClass");
        text += LdifText(written, attribute.value, end.crlf);
    }
    if (!has_class)
        return Refuse("no objectClass");
    for (const auto& [own_name, own_value] : name.own)
        if (values.Add(own_name, own_value).result == ModifyResult::kDone)
            text += LdifText(own_name, own_value, end.crlf);
    return {ModifyResult::kDone, {}, {{end.size, end.size, text}}};
}

LdifChange PlanDelete(const LdifRecord& record)
{
    // With its empty line, unless a comment before it would then belong to the next entry.
    const bool with_empty = !record.comment_before && record.blank_end != 0;
    return {ModifyResult::kDone,
            {},
            {{record.begin, with_empty ? record.blank_end : record.End(), {}}}};
}

}  // namespace dl
