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
#include "lists/look_up_pause.h"
#include "lists/mailing_list.h"

namespace dl
{

class ListReading;

// Lists by name, without regard to case. Looking one up takes no memory.
struct NameHash {
    std::size_t operator()(const std::string& name) const;
};
struct NameEqual {
    bool operator()(const std::string& a, const std::string& b) const;
};
using ListIndex = std::unordered_map<std::string, std::int32_t, NameHash, NameEqual>;

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

    // Loads every list, in place of those that there are. True when the directory answered, also
    // with no list; false, and the cache as it was, when it could not be reached, refused, gave no
    // whole answer, or memory ran out.
    bool InitCache();
    // Reloads what has changed. A directory that does not give its whole answer leaves the cache as
    // it was: true when it could not be reached or refused, silently; false when the answer broke
    // off or memory ran out. RefreshFailed() tells either from a refresh that was done.
    bool RefreshCache();
    [[nodiscard]] bool RefreshFailed() const { return refresh_failed_; }
    // Looks one list up in the directory and appends it. True when it was found.
    bool AddCache(const std::string& list);
    void DeleteCache();
    // The owner's address of a cached list, looked up once; the postmaster when the list has no
    // owner alias. Null when the list is not cached, when the look-up failed, or when the alias
    // names no owner, which is logged at level 1.
    [[nodiscard]] const char* GetListOwner(const std::string& list);
    // Whether the last IsCached, AddCache or GetListOwner, or query that loads an empty cache,
    // needed the directory and got no answer: what it returned means nothing then. After that
    // look-ups fail at once, without asking and without a line, for a pause that grows
    // (look_up_pause.h); cached lists answer all the same.
    [[nodiscard]] bool LookUpFailed() const { return look_up_failed_; }

    // Whether the last connect and bind of InitCache, AddCache or GetListOwner succeeded; false,
    // too, when the last InitCache failed later.
    [[nodiscard]] bool DirectoryReachable() const { return directory_reachable_; }
    // True until a load has had a whole answer: nobody knows then what is a list. CacheEmpty()
    // without DirectoryReachable() is not the same: a directory that holds no list and goes away
    // later brings that about, too, and then nothing would end it.
    [[nodiscard]] bool WaitsForDirectory() const { return !answered_ && CacheEmpty(); }
    // True until lists have been loaded.
    [[nodiscard]] bool CacheEmpty() const { return !loaded_; }
    [[nodiscard]] std::int32_t Count() const { return static_cast<std::int32_t>(records_.size()); }

    // Walks the lists; null past the last. Both set the list cursor.
    [[nodiscard]] const char* GetFirstList();
    [[nodiscard]] const char* GetNextList();

    // Whether the list is known; asks the directory when it is not cached. See LookUpFailed().
    [[nodiscard]] bool IsCached(const std::string& list);
    // -1 for an unknown list. These two, and the members' below, load an empty cache.
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
    [[nodiscard]] const _mailinglist* Record(const std::string& list) const;
    [[nodiscard]] const _mailinglist* AtCursor() const;
    enum class Found { kYes, kNo, kNoAnswer };
    [[nodiscard]] bool Connect(ldapClient* client);
    // Loads a cache that is empty. False when the directory gave no answer, or was not asked.
    bool LoadWhenEmpty();
    // Around each look-up, for LookUpFailed(): whether the directory may be asked now, and what
    // came of it; true when it was found.
    [[nodiscard]] bool MayLookUp();
    [[nodiscard]] bool EndLookUp(Found found);
    [[nodiscard]] Found FindList(const std::string& list);
    [[nodiscard]] Found FindOwner(_mailinglist* record);
    void Append(std::deque<_mailinglist>* lists);
    // Replaces the records by the directory's whole answer, or logs why there is none. `keep`:
    // lists that have not changed need not be read or loaded again.
    [[nodiscard]] bool Reload(ldapClient* client, bool keep);
    [[nodiscard]] bool ReadLists(ldapClient* client, const DirectoryMark& mark,
                                 ListReading* reading) const;
    void Replace(ListReading* reading);
    void CountRefresh(bool done) const;
    void CountMembers() const;

    std::unique_ptr<SpamChecker> spam_checker_;
    bool directory_reachable_ = false;
    bool answered_ = false;  // a load has had a whole answer
    bool refresh_failed_ = false;
    bool look_up_failed_ = false;
    LookUpPause pause_;
    bool loaded_ = false;    // the records exist, be there none
    bool appended_ = false;  // by AddCache, since the last load
    DirectoryMark mark_;     // of the directory at the last load
    std::time_t last_whole_reading_ = 0;
    std::deque<_mailinglist> records_;
    ListIndex index_;  // by name; the first one
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
