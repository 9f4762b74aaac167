// dllist: the cache of all mailing lists, from which every decision about a message is answered.
//
// One object per process, the first that main makes; the archive worker has one of its own. Loaded
// by InitCache, reloaded by RefreshCache, grown by AddCache when an unknown list turns up in the
// directory. A list is found by its whole address, without regard to case; the first match wins.
// Texts that a query returns belong to the cache and live until the next refresh or DeleteCache.
// The directory operations open a connection each, and log what fails. Not locked: one thread.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>

#include "antispam/spam_checker.h"
#include "lists/mailing_list.h"

namespace dl
{

struct DigestTime {
    int hour = 0;
    int minute = 0;
    int frequency = 0;
    int day = 1;
};

class dllist
{
 public:
    dllist();
    ~dllist();
    dllist(const dllist&) = delete;
    dllist& operator=(const dllist&) = delete;

    // Empties the cache and loads every list. True when the directory answered, also with no list;
    // false, and the cache empty, when it could not be reached, refused, gave no whole answer, or
    // memory ran out.
    bool InitCache();
    // Reloads from a directory that answers; else keeps the cache as it is. False only when the
    // reload itself fails.
    bool RefreshCache();
    // Looks one list up in the directory and appends it. True when it was found.
    bool AddCache(const std::string& list);
    void DeleteCache();
    // The owner's address of a cached list, looked up once; the postmaster when the list has no
    // owner alias. Null when the list is not cached or the owner cannot be found out.
    [[nodiscard]] const char* GetListOwner(const std::string& list);

    // Whether the last connect and bind of InitCache, AddCache or GetListOwner succeeded.
    [[nodiscard]] bool DirectoryReachable() const { return directory_reachable_; }
    // Whether the last IsCached, AddCache or GetListOwner asked a directory that gave no answer.
    [[nodiscard]] bool LookUpFailed() const { return look_up_failed_; }
    // True until lists have been loaded.
    [[nodiscard]] bool CacheEmpty() const { return !loaded_; }
    [[nodiscard]] std::int32_t Count() const { return static_cast<std::int32_t>(records_.size()); }

    // Walks the lists; null past the last. Both set the list cursor.
    [[nodiscard]] const char* GetFirstList();
    [[nodiscard]] const char* GetNextList();

    // Whether the list is known; asks the directory when it is not cached.
    [[nodiscard]] bool IsCached(const std::string& list);
    // -1 for an unknown list. These two load an empty cache.
    [[nodiscard]] int GetMode(const std::string& list);
    [[nodiscard]] int GetArchiveFlag(const std::string& list);

    // The list's address as the directory spells it; null when it is not cached.
    [[nodiscard]] const char* GetSpelling(const std::string& list) const;
    // Settings; an unknown list has the defaults 0:00 daily day 1, no limit, no file, no MIME
    // digest, bounce and forward, no automatic subscription, posting allowed, receipts removed.
    [[nodiscard]] DigestTime GetDigestTime(const std::string& list) const;
    [[nodiscard]] long GetDigestSize(const std::string& list) const;
    [[nodiscard]] const char* GetSubscribeTextFile(const std::string& list) const;
    [[nodiscard]] const char* GetUnsubscribeTextFile(const std::string& list) const;
    [[nodiscard]] const char* GetWelcomeTextFile(const std::string& list) const;
    [[nodiscard]] const char* GetDisclaimerFile(const std::string& list) const;
    [[nodiscard]] const char* GetDisclaimerHTMLFile(const std::string& list) const;
    [[nodiscard]] bool UseMimeDigest(const std::string& list) const;
    [[nodiscard]] int GetHandlingMethod(const std::string& list) const;
    [[nodiscard]] bool AllowAutoSubscription(const std::string& list) const;
    [[nodiscard]] bool AllowPosting(const std::string& list) const;
    [[nodiscard]] bool RemoveReturnReceipt(const std::string& list) const;
    [[nodiscard]] const AntiSpamConfig* GetSpamSettings(const std::string& list) const;
    // The service-wide checker of spam marks, named "DL"; never null, lives as long as the cache.
    [[nodiscard]] SpamChecker* GetSpamChecker() const { return spam_checker_.get(); }
    // False also when the address is no member. Digest members are looked at first.
    [[nodiscard]] bool IsMemberBlocked(const std::string& list, const std::string& address) const;

    // Members by mode, "Immediate" or "Digest" (any case). The two modes have cursors of their own.
    // GetFirstMember sets the list cursor to a list that it finds; for an unknown one it asks the
    // directory only when no list was chosen before, and else walks the list chosen last: call
    // IsCached first. GetNextMember is for the list of the list cursor. HasMember reads the list of
    // the list cursor once `list` is cached: call it right after choosing that list.
    [[nodiscard]] bool HasMember(const std::string& list, const std::string& mode);
    [[nodiscard]] const char* GetFirstMember(const std::string& list, const std::string& mode);
    [[nodiscard]] const char* GetNextMember(const std::string& list, const std::string& mode);

 private:
    [[nodiscard]] std::int32_t Find(const std::string& list) const;  // -1: not cached
    void AddToIndex(std::int32_t record);
    [[nodiscard]] const _mailinglist* Record(const std::string& list) const;
    [[nodiscard]] const _mailinglist* AtCursor() const;
    [[nodiscard]] bool Connect(ldapClient* client);
    // All list entries; false, and logged, when the directory gives no whole answer.
    [[nodiscard]] bool FindLists(SearchReq* found);
    [[nodiscard]] bool ReadLists();
    [[nodiscard]] bool Load(SearchReq* found);
    void CountRefresh(bool done) const;
    void CountMembers() const;
    [[nodiscard]] bool LookUpOwner(_mailinglist* record);

    std::unique_ptr<SpamChecker> spam_checker_;
    bool directory_reachable_ = false;
    bool look_up_failed_ = false;
    bool loaded_ = false;  // the records exist, be there none
    std::deque<_mailinglist> records_;
    std::unordered_map<std::string, std::int32_t> index_;  // by name in lower case; the first one
    std::int32_t list_cursor_ = -1;
    std::int32_t immediate_cursor_ = -1;
    std::int32_t digest_cursor_ = -1;
};

// The process's cache.
[[nodiscard]] dllist& ListCache();

// Turn an ASCII text to lower or upper case in place.
char* _strlwr(char* text);
char* _strupr(char* text);

}  // namespace dl
