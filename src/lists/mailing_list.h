// _mailinglist: one list's settings and members, as the cache keeps them.
//
// A record is filled once, by LoadMailingList from one directory entry, and then only read, but for
// the owner, which is looked up on first demand. The record owns all its texts; whoever gets one
// may use it until the next refresh.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "antispam/antispam_config.h"
#include "lists/member_list.h"
#include "platform/directory/directory.h"

namespace dl
{

inline constexpr int kOpenList = 0;
inline constexpr int kClosedList = 1;

// What happens to a posting that the list refuses.
inline constexpr int kDiscardPosting = 0;
inline constexpr int kBouncePosting = 1;
inline constexpr int kForwardPosting = 2;
inline constexpr int kBounceAndForwardPosting = 3;

// By what a refresh knows a list again.
struct ListOrigin {
    std::string dn;          // of its entry
    std::uint64_t hash = 0;  // of the entry's values
    std::string stamp;       // that the server gave the entry; empty: it may have changed since
};

struct _mailinglist {
    std::string name;  // the list's address, key of every lookup
    std::optional<std::string> owner;
    std::optional<std::string> subscribe_text;  // paths of text files
    std::optional<std::string> unsubscribe_text;
    std::optional<std::string> welcome_text;
    std::optional<std::string> disclaimer_text;
    std::optional<std::string> disclaimer_html;
    MemberList digest_members;
    MemberList immediate_members;
    std::int32_t mode = kOpenList;
    std::int32_t archive = 1;
    std::int32_t digest_count = 0;
    std::int32_t immediate_count = 0;
    std::int32_t digest_hour = 0;
    std::int32_t digest_minute = 0;
    std::int32_t max_digest_size = 0;  // the configured Kbytes times 100; 0 is no limit
    std::int32_t digest_frequency = 0;
    std::int32_t invalid_posting = kBounceAndForwardPosting;
    std::int32_t digest_day = 1;  // weekly 1 Monday to 7 Sunday, monthly 1 to 31
    bool use_mime_digest = true;
    bool auto_subscription = false;
    bool posting_allowed = true;
    bool remove_return_receipt = true;
    AntiSpamConfig spam_settings;
    std::string spelling;  // of the name in the directory, when it is another; names the folders
    ListOrigin origin;     // empty for a list that was added by itself: the next refresh reads it
};

// Moves the members from `entry` to `record`, silently but for members that find no room, at level
// 6. Throws std::bad_alloc then: a list without its members would swallow its postings.
void TakeMembers(const std::string& list, SearchEntry* entry, _mailinglist* record);
// Fills `record` from `entry`, whose members it takes when that is not done (its attributes move
// then); logs each setting at level 6; seeds the list's digest schedule file. Always true; throws
// std::bad_alloc.
bool LoadMailingList(const std::string& list, SearchEntry* entry, _mailinglist* record);
// Makes the list's digest schedule file below `data_path` when it is missing. An existing file
// stays, so that a refresh never moves a pending digest.
void SeedDigestSchedule(const _mailinglist& record, const std::string& data_path);

}  // namespace dl
