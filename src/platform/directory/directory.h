// The directory, as the service sees it: connect, bind, search, modify, unbind.
//
// Two back ends offer the same: an LDAP server through libldap, or, with Ldap/File in "qvms.conf",
// one LDIF file. An ldapClient is made on the stack for one operation; destroying it ends the
// session. Nothing here throws but std::bad_alloc. The caller logs what a failure means to it; the
// back end logs at level 1 the cause that only it knows (file and line of a broken LDIF file, "size
// limit exceeded after 500 entries"); why a server could not be reached, or refused, at level 5.
// Further settings of section "Ldap", read at each connect: BaseDN (base of a search with a null
// base), StartTLS (0/1), TLSCACertFile (who may have signed the server's certificate; else the
// system's list), TimeOut (seconds for connecting and for each answer, default 5), PageSize
// (entries a page, default 500). A File without a leading "/" lies in the configuration folder. A
// host text that begins with "ldap://", "ldaps://" or "ldapi://" is a URI and used as it stands; an
// empty one is this machine. Several threads may work at once, each with a client of its own.
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace dl
{

// One attribute value. An attribute with several values is several of these, in the directory's
// order.
struct SearchAttribute {
    std::string_view name;  // in the schema's spelling, e.g. "listmember"; lies in the result
    std::string value;
};

struct SearchEntry {
    std::string dn;
    std::vector<SearchAttribute> attributes;
};

// The attribute names of a result, each kept once. Moving it keeps what views it; it cannot be
// copied.
class NamePool
{
 public:
    NamePool() = default;
    NamePool(NamePool&&) = default;
    NamePool& operator=(NamePool&&) = default;

    // A view of the pool's own copy of `name`, valid as long as the pool.
    std::string_view Keep(std::string_view name);

 private:
    std::set<std::string, std::less<>> names_;
};

// A search's answer. "Nothing matched" and "the search failed" never look alike.
struct SearchReq {
    bool failed =
        false;  // unreachable, refused, timed out, or incomplete: the entries are empty then
    std::vector<SearchEntry> entries;
    NamePool names;  // what the attributes' names view

    [[nodiscard]] bool Empty() const { return entries.empty(); }
};

// A question to the directory.
struct SearchQuery {
    std::string filter;
    const char* base = nullptr;  // null: the configured or the server's default base
    int scope = 2;               // 0 base, 1 one level, 2 whole subtree
    bool attributes_only = false;
    // None: all but those that a server keeps for itself, as "*" is beside the names of such.
    std::vector<std::string> attributes = {};
    std::size_t limit = 0;  // the answer is whole with so many entries, the first; 0: with all
};

// Takes the entries of an answer one by one, in the directory's order.
using EntrySink = std::function<void(SearchEntry&&)>;

// What tells one reading of a directory from another.
struct DirectoryMark {
    std::string source;  // the server, the bind's name and the base, or the file and the base
    // Another text after any change of the directory. Empty: the server does not tell, but marks
    // each of its entries (attributes entryCSN and modifyTimestamp).
    std::string state;

    bool operator==(const DirectoryMark&) const = default;
};

// One change of one value (RFC 4511, 4.6).
struct AttributeChange {
    enum class Operation { kAdd = 0, kDelete = 1 };
    Operation operation = Operation::kAdd;
    std::string name;   // at most 63 bytes
    std::string value;  // at most 511 bytes
};

inline constexpr std::size_t kMaxModifyValue = 511;

enum class ModifyResult {
    kDone = 0,
    kUnreachable,  // no decision: whether it was done is not known, or the server cannot do it now
    kRefused,      // nothing was done: no rights, schema, no such entry, or the value is too long
    kAlready,      // add: the value is there (in any letter case), or the whole entry is
    kNotThere,     // delete: no such value, or no such entry to delete
};

class DirectorySession;

class ldapClient
{
 public:
    ldapClient();
    ~ldapClient();
    ldapClient(const ldapClient&) = delete;
    ldapClient& operator=(const ldapClient&) = delete;

    // 0 on success. `port` 0 means 389. The connection stands then, or the whole LDIF file has been
    // found sound.
    [[nodiscard]] int ldapClientConnect(const std::string& host, int port);
    // 0 on success. Empty name and password bind anonymously; a name without a password is refused,
    // because a server would take it for an anonymous bind. An LDIF file is guarded by its mode:
    // any name and password will do.
    [[nodiscard]] int ldapClientBind(const std::string& user, const std::string& password);
    // `base` null is the configured or the server's default base; `scope` 0 base, 1 one level, 2
    // whole subtree. A base that does not exist is a failed search.
    [[nodiscard]] SearchReq ldapClientSearch(const char* base, int scope, bool attributes_only,
                                             const std::string& filter);
    // The same for an answer that is not to lie in memory whole: gives each entry to `take` as it
    // comes; the attributes' names lie in `names`. False when the search failed: what was taken is
    // no answer then.
    [[nodiscard]] bool ForEachEntry(const SearchQuery& query, NamePool* names,
                                    const EntrySink& take);
    // Of the session that stands; taken before a search, it tells any change after it.
    [[nodiscard]] DirectoryMark Mark() const;
    // All changes or, when one cannot be made, none.
    [[nodiscard]] ModifyResult ldapClientModify(const std::string& entry,
                                                const std::vector<AttributeChange>& changes);
    // Adds or removes a whole entry; for dlctl. `attributes` in the order in which they are
    // written; the values of the entry's own name are put in when they are missing. An LDIF file
    // takes an entry whose parent it does not hold; a server does not.
    [[nodiscard]] ModifyResult AddEntry(const std::string& entry,
                                        const std::vector<SearchAttribute>& attributes);
    [[nodiscard]] ModifyResult DeleteEntry(const std::string& entry);
    // Puts those of `names` that the server's schema does not define into `unknown`; for dlctl.
    // False when the schema cannot be read. An LDIF file has none: it takes any.
    [[nodiscard]] bool FindUnknownAttributes(const std::vector<std::string>& names,
                                             std::vector<std::string>* unknown);
    void ldapClientUnbind();

 private:
    std::unique_ptr<DirectorySession> session_;  // never null
};

// `text` as it may stand for a value in a filter (RFC 4515) or in a name (RFC 4514).
[[nodiscard]] std::string EscapeFilterValue(std::string_view text);
[[nodiscard]] std::string EscapeNameValue(std::string_view text);

// One session of a back end; what ldapClient stands on. Results as of ldapClient.
class DirectorySession
{
 public:
    virtual ~DirectorySession() = default;
    virtual bool Connect(const std::string& host, int port) = 0;
    virtual bool Bind(const std::string& user, const std::string& password) = 0;
    virtual bool Search(const SearchQuery& query, NamePool* names, const EntrySink& take) = 0;
    [[nodiscard]] virtual DirectoryMark Mark() const = 0;
    virtual ModifyResult Modify(const std::string& entry,
                                const std::vector<AttributeChange>& changes) = 0;
    virtual ModifyResult Add(const std::string& entry,
                             const std::vector<SearchAttribute>& attributes) = 0;
    virtual ModifyResult Delete(const std::string& entry) = 0;
    virtual bool UnknownAttributes(const std::vector<std::string>& /*names*/,
                                   std::vector<std::string>* /*unknown*/)
    {
        return true;  // a back end without a schema
    }
    virtual void Unbind() = 0;
};

std::unique_ptr<DirectorySession> MakeLdapSession();
std::unique_ptr<DirectorySession> MakeLdifSession(const std::string& path);

// Makes the sessions of new clients; null goes back to the configuration's choice. For tests
// (failing wrapper).
using DirectoryFactory = std::function<std::unique_ptr<DirectorySession>()>;
void SetDirectoryFactory(DirectoryFactory factory);
// The configuration's choice: MakeLdifSession when Ldap/File is set, else MakeLdapSession.
std::unique_ptr<DirectorySession> ConfiguredSession();

}  // namespace dl
