#include "lists/dllist.h"

#include "platform/address/address.h"

namespace dl
{
namespace
{

const char* TextOrNull(const std::optional<std::string>& text)
{
    return text ? text->c_str() : nullptr;
}

const MemberList* MembersOf(const _mailinglist& record, const std::string& mode)
{
    if (EqualNoCase(mode, "Immediate"))
        return &record.immediate_members;
    if (EqualNoCase(mode, "Digest"))
        return &record.digest_members;
    return nullptr;
}

}  // namespace

// FNV-1a: the names are the directory's.
std::size_t NameHash::operator()(const std::string& name) const
{
    std::uint64_t hash = 0xCBF29CE484222325U;
    for (const char c : name) {
        const char lower = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        hash = (hash ^ static_cast<unsigned char>(lower)) * 0x100000001B3U;
    }
    return hash;
}

bool NameEqual::operator()(const std::string& a, const std::string& b) const
{
    return EqualNoCase(a, b);
}

dllist& ListCache()
{
    static dllist cache;
    return cache;
}

dllist::dllist() : spam_checker_(std::make_unique<SpamChecker>())
{
    spam_checker_->SetName("DL");
}

dllist::~dllist()
{
    DeleteCache();
}

void dllist::DeleteCache()
{
    index_.clear();
    records_.clear();
    records_.shrink_to_fit();
    loaded_ = false;
}

std::int32_t dllist::Find(const std::string& list) const
{
    const auto found = index_.find(list);
    return found == index_.end() ? -1 : found->second;
}

const _mailinglist* dllist::Record(const std::string& list) const
{
    const std::int32_t index = Find(list);
    return index < 0 ? nullptr : &records_[static_cast<std::size_t>(index)];
}

const char* dllist::GetSpelling(const std::string& list) const
{
    const _mailinglist* record = Record(list);
    if (!record)
        return nullptr;
    return (record->spelling.empty() ? record->name : record->spelling).c_str();
}

const _mailinglist* dllist::AtCursor() const
{
    if (list_cursor_ < 0 || list_cursor_ >= Count())
        return nullptr;
    return &records_[static_cast<std::size_t>(list_cursor_)];
}

const char* dllist::GetFirstList()
{
    if (records_.empty())
        return nullptr;
    list_cursor_ = 0;
    return records_.front().name.c_str();
}

const char* dllist::GetNextList()
{
    if (list_cursor_ + 1 >= Count())
        return nullptr;
    ++list_cursor_;
    return AtCursor()->name.c_str();
}

bool dllist::IsCached(const std::string& list)
{
    look_up_failed_ = false;
    return LoadWhenEmpty() && (Find(list) >= 0 || AddCache(list));
}

int dllist::GetMode(const std::string& list)
{
    LoadWhenEmpty();
    const _mailinglist* record = Record(list);
    return record ? record->mode : -1;
}

int dllist::GetArchiveFlag(const std::string& list)
{
    LoadWhenEmpty();
    const _mailinglist* record = Record(list);
    return record ? record->archive : -1;
}

DigestTime dllist::GetDigestTime(const std::string& list) const
{
    const _mailinglist* record = Record(list);
    if (!record)
        return {};
    return {record->digest_hour, record->digest_minute, record->digest_frequency,
            record->digest_day};
}

long dllist::GetDigestSize(const std::string& list) const
{
    const _mailinglist* record = Record(list);
    return record ? record->max_digest_size : 0;
}

const char* dllist::GetSubscribeTextFile(const std::string& list) const
{
    const _mailinglist* record = Record(list);
    return record ? TextOrNull(record->subscribe_text) : nullptr;
}

const char* dllist::GetUnsubscribeTextFile(const std::string& list) const
{
    const _mailinglist* record = Record(list);
    return record ? TextOrNull(record->unsubscribe_text) : nullptr;
}

const char* dllist::GetWelcomeTextFile(const std::string& list) const
{
    const _mailinglist* record = Record(list);
    return record ? TextOrNull(record->welcome_text) : nullptr;
}

const char* dllist::GetDisclaimerFile(const std::string& list) const
{
    const _mailinglist* record = Record(list);
    return record ? TextOrNull(record->disclaimer_text) : nullptr;
}

const char* dllist::GetDisclaimerHTMLFile(const std::string& list) const
{
    const _mailinglist* record = Record(list);
    return record ? TextOrNull(record->disclaimer_html) : nullptr;
}

bool dllist::UseMimeDigest(const std::string& list) const
{
    const _mailinglist* record = Record(list);
    return record && record->use_mime_digest;
}

int dllist::GetHandlingMethod(const std::string& list) const
{
    const _mailinglist* record = Record(list);
    return record ? record->invalid_posting : kBounceAndForwardPosting;
}

bool dllist::AllowAutoSubscription(const std::string& list) const
{
    const _mailinglist* record = Record(list);
    return record && record->auto_subscription;
}

bool dllist::AllowPosting(const std::string& list) const
{
    const _mailinglist* record = Record(list);
    return !record || record->posting_allowed;
}

bool dllist::RemoveReturnReceipt(const std::string& list) const
{
    const _mailinglist* record = Record(list);
    return !record || record->remove_return_receipt;
}

const AntiSpamConfig* dllist::GetSpamSettings(const std::string& list) const
{
    const _mailinglist* record = Record(list);
    return record ? &record->spam_settings : nullptr;
}

bool dllist::IsMemberBlocked(const std::string& list, const std::string& address) const
{
    const _mailinglist* record = Record(list);
    if (!record)
        return false;
    for (const MemberList* members : {&record->digest_members, &record->immediate_members}) {
        const std::size_t member = members->Find(address);
        if (member != members->Count())
            return members->IsBlocked(member);
    }
    return false;
}

bool dllist::HasMember(const std::string& list, const std::string& mode)
{
    if (CacheEmpty() && !pause_.Runs())
        (void)RefreshCache();  // an empty cache answers below
    if (Find(list) < 0)
        return false;
    const _mailinglist* record = AtCursor();
    const MemberList* members = record ? MembersOf(*record, mode) : nullptr;
    return members && !members->Empty();
}

const char* dllist::GetFirstMember(const std::string& list, const std::string& mode)
{
    LoadWhenEmpty();
    if (CacheEmpty())
        return nullptr;
    const std::int32_t index = Find(list);
    if (index >= 0)
        list_cursor_ = index;
    else if (list_cursor_ == -1 && !AddCache(list))  // AddCache chooses the list that it appends
        return nullptr;
    const _mailinglist* record = AtCursor();
    const MemberList* members = record ? MembersOf(*record, mode) : nullptr;
    if (!members || members->Empty())
        return nullptr;
    (members == &record->immediate_members ? immediate_cursor_ : digest_cursor_) = 0;
    return members->Address(0);
}

const char* dllist::GetNextMember(const std::string& list, const std::string& mode)
{
    const _mailinglist* record = AtCursor();
    if (!record || !EqualNoCase(record->name, list))
        return nullptr;
    const MemberList* members = MembersOf(*record, mode);
    if (!members)
        return nullptr;
    std::int32_t& cursor =
        members == &record->immediate_members ? immediate_cursor_ : digest_cursor_;
    const std::size_t next = static_cast<std::size_t>(cursor) + 1;
    if (next >= members->Count())
        return nullptr;
    ++cursor;
    return members->Address(next);
}

char* _strlwr(char* text)
{
    for (char* p = text; *p; ++p)
        if (*p >= 'A' && *p <= 'Z')
            *p = static_cast<char>(*p - 'A' + 'a');
    return text;
}

char* _strupr(char* text)
{
    for (char* p = text; *p; ++p)
        if (*p >= 'a' && *p <= 'z')
            *p = static_cast<char>(*p - 'a' + 'A');
    return text;
}

}  // namespace dl
