#include "platform/directory/directory.h"

#include <algorithm>
#include <cstdarg>
#include <utility>

#include "platform/config/config.h"
#include "platform/directory/directory_private.h"
#include "platform/log/log.h"

namespace dl
{
namespace
{

constexpr std::size_t kMaxModifyName = 63;
constexpr std::size_t kMaxLogLine = 1024;

DirectoryFactory& Factory()
{
    static DirectoryFactory factory;
    return factory;
}

std::unique_ptr<DirectorySession> NewSession()
{
    std::unique_ptr<DirectorySession> session = Factory() ? Factory()() : nullptr;
    return session ? std::move(session) : ConfiguredSession();
}

// The libraries underneath end a text at a NUL: what follows it would be lost without a word.
bool HasNul(std::string_view text)
{
    return text.find('\0') != std::string_view::npos;
}

void AppendHex(std::string* out, char c)
{
    constexpr char kDigits[] = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(c);
    *out += '\\';
    *out += kDigits[byte >> 4];
    *out += kDigits[byte & 15];
}

bool IsPlain(char c)
{
    return c >= 0x20 && c < 0x7F;
}

std::string Setting(const char* key)
{
    return GetPrivateProfileString("Ldap", key, "", 4096, kMainConfig);
}

}  // namespace

std::string_view NamePool::Keep(std::string_view name)
{
    const auto found = names_.find(name);
    return found != names_.end() ? *found : *names_.emplace(name).first;
}

ldapClient::ldapClient() : session_(NewSession()) {}

ldapClient::~ldapClient() = default;

int ldapClient::ldapClientConnect(const std::string& host, int port)
{
    return !HasNul(host) && session_->Connect(host, port) ? 0 : -1;
}

int ldapClient::ldapClientBind(const std::string& user, const std::string& password)
{
    return !HasNul(user) && session_->Bind(user, password) ? 0 : -1;
}

SearchReq ldapClient::ldapClientSearch(const char* base, int scope, bool attributes_only,
                                       const std::string& filter)
{
    SearchReq result;
    const SearchQuery query{
        .filter = filter, .base = base, .scope = scope, .attributes_only = attributes_only};
    const auto take = [&result](SearchEntry&& entry) {
        result.entries.push_back(std::move(entry));
    };
    if (!ForEachEntry(query, &result.names, take)) {
        result.failed = true;
        result.entries.clear();
    }
    return result;
}

bool ldapClient::ForEachEntry(const SearchQuery& query, NamePool* names, const EntrySink& take)
{
    // A server takes an empty filter for "everything".
    if (query.scope < 0 || query.scope > 2 || query.filter.empty() || HasNul(query.filter)) {
        LogDirectory(1, "search of %s refused: a bad scope, or no filter", query.filter.c_str());
        return false;
    }
    return session_->Search(query, names, take);
}

DirectoryMark ldapClient::Mark() const
{
    return session_->Mark();
}

ModifyResult ldapClient::ldapClientModify(const std::string& entry,
                                          const std::vector<AttributeChange>& changes)
{
    const auto fits = [](const AttributeChange& change) {
        return !change.name.empty() && change.name.size() <= kMaxModifyName &&
               !change.value.empty() && change.value.size() <= kMaxModifyValue &&
               !HasNul(change.name) && !HasNul(change.value);
    };
    if (entry.empty() || HasNul(entry) || changes.empty() ||
        !std::all_of(changes.begin(), changes.end(), fits)) {
        LogDirectory(5, "change of %s refused: a name or value that is empty or too long",
                     entry.c_str());
        return ModifyResult::kRefused;
    }
    return session_->Modify(entry, changes);
}

ModifyResult ldapClient::AddEntry(const std::string& entry,
                                  const std::vector<SearchAttribute>& attributes)
{
    const auto bad = [](const SearchAttribute& attribute) {
        return attribute.name.empty() || attribute.value.empty() || HasNul(attribute.name) ||
               HasNul(attribute.value);
    };
    if (entry.empty() || HasNul(entry) || attributes.empty() ||
        std::any_of(attributes.begin(), attributes.end(), bad)) {
        LogDirectory(5, "new entry %s refused: an empty name or value", entry.c_str());
        return ModifyResult::kRefused;
    }
    return session_->Add(entry, attributes);
}

ModifyResult ldapClient::DeleteEntry(const std::string& entry)
{
    return entry.empty() || HasNul(entry) ? ModifyResult::kRefused : session_->Delete(entry);
}

bool ldapClient::FindUnknownAttributes(const std::vector<std::string>& names,
                                       std::vector<std::string>* unknown)
{
    return session_->UnknownAttributes(names, unknown);
}

void ldapClient::ldapClientUnbind()
{
    session_->Unbind();
}

std::string EscapeFilterValue(std::string_view text)
{
    std::string out;
    for (const char c : text) {
        if (!IsPlain(c) || c == '*' || c == '(' || c == ')' || c == '\\')
            AppendHex(&out, c);
        else
            out += c;
    }
    return out;
}

std::string EscapeNameValue(std::string_view text)
{
    constexpr std::string_view kSpecial = "\"+,;<>=\\";
    std::string out;
    for (std::size_t i = 0; i < text.size(); i++) {
        const char c = text[i];
        const bool first_or_last = i == 0 || i + 1 == text.size();
        if (!IsPlain(c) || kSpecial.find(c) != std::string_view::npos || (c == '#' && i == 0) ||
            (c == ' ' && first_or_last))
            AppendHex(&out, c);
        else
            out += c;
    }
    return out;
}

DirectorySettings ReadDirectorySettings()
{
    DirectorySettings settings;
    settings.base = Setting("BaseDN");
    settings.ca_file = Setting("TLSCACertFile");
    settings.start_tls = GetPrivateProfileInt("Ldap", "StartTLS", 0, kMainConfig) != 0;
    settings.timeout_seconds =
        std::clamp(GetPrivateProfileInt("Ldap", "TimeOut", 5, kMainConfig), 1, 3600);
    settings.page_size =
        std::clamp(GetPrivateProfileInt("Ldap", "PageSize", 500, kMainConfig), 1, 100'000);
    return settings;
}

void LogDirectory(int level, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    (void)LogFormatted(level, "Directory", kMaxLogLine, format, args);
    va_end(args);
}

void SetDirectoryFactory(DirectoryFactory factory)
{
    Factory() = std::move(factory);
}

std::unique_ptr<DirectorySession> ConfiguredSession()
{
    const std::string file = Setting("File");
    if (file.empty())
        return MakeLdapSession();
    return MakeLdifSession(file[0] == '/' ? file : ConfigPath(file));
}

}  // namespace dl
