#include "antispam/rbl_defaults.h"

#include <cstdlib>

#include "antispam/antispam_config.h"
#include "antispam/spam_log.h"
#include "platform/address/address.h"
#include "platform/clock/clock.h"
#include "platform/config/config.h"
#include "platform/directory/directory.h"

namespace dl
{
namespace
{

constexpr char kFilter[] = "(&(objectclass=qvconfig)(cn=PreProcessor))";
constexpr char kAttribute[] = "x-kvtblaction";
constexpr int kSubtree = 2;
constexpr int kDefaultPort = 389;
constexpr int kDefaultInterval = 15;  // minutes

char Lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The action of an override's letter; `action` for a letter that is none.
int OverrideAction(char letter, int action)
{
    switch (Lower(letter)) {
        case 'i':
            return kSpamIgnore;
        case 'd':
            return kSpamDiscard;
        case 'f':
            return kSpamFile;
        case 'b':
            return kSpamBounce;
        default:
            return action;
    }
}

void LogHost(const RblHost& host)
{
    switch (host.action) {
        case kSpamIgnore:
            KestruneLog(5, "RBL Host: %s; mode: %d, action: IGNORE", host.name.c_str(), host.mode);
            break;
        case kSpamDiscard:
            KestruneLog(5, "RBL Host: %s; mode: %d, action: DISCARD", host.name.c_str(), host.mode);
            break;
        case kSpamFile:
            KestruneLog(5, "RBL Host: %s; mode: %d, action: FILE", host.name.c_str(), host.mode);
            break;
        default:
            KestruneLog(5, "RBL Host: %s; mode: %d, action: BOUNCE", host.name.c_str(), host.mode);
            break;
    }
}

bool Open(ldapClient* client)
{
    const auto read = [](const char* key, std::size_t size) {
        return GetPrivateProfileString("Ldap", key, "", size, kGatewayConfig);
    };
    const int port = std::atoi(read("Port", 16).c_str());
    if (client->ldapClientConnect(read("HostName", 128), port == 0 ? kDefaultPort : port) != 0) {
        KestruneLog(1, "Unable to connect to LDAP server");
        return false;
    }
    return client->ldapClientBind(read("Username", 64), read("Password", 64)) == 0;
}

}  // namespace

std::optional<RblHost> ParseRblHost(const std::string& value, const std::string& local_name)
{
    RblHost host;
    std::size_t from = 0;
    for (int number = 1; from <= value.size(); ++number) {
        const std::size_t comma = value.find(',', from);
        const std::string field =
            value.substr(from, comma == std::string::npos ? comma : comma - from);
        if (field.empty())
            break;
        if (number == 1) {
            host.name = field;
        } else if (number == 2) {
            host.mode = Lower(field[0]) == 'p' ? 0 : 1;
        } else if (number == 3) {
            host.action = Lower(field[0]) == 'd' ? kSpamDiscard : kSpamIgnore;
        } else if (StartsWithNoCase(field, local_name)) {
            const std::size_t colon = field.find(':');
            if (colon != std::string::npos && colon + 1 < field.size())
                host.action = OverrideAction(field[colon + 1], host.action);
        }
        if (comma == std::string::npos)
            break;
        from = comma + 1;
    }
    if (host.name.empty())
        return std::nullopt;
    return host;
}

void RblDefaults::ReloadWhenDue(const std::string& local_name)
{
    const int interval =
        GetPrivateProfileInt("Kestrune", "ReloadInterval", kDefaultInterval, kGatewayConfig);
    const std::time_t now = Now();
    // A moment of loading that is still to come is one of a clock that has been set back.
    if (loaded_ != -1 && now >= loaded_ && now - loaded_ < static_cast<std::time_t>(interval) * 60)
        return;
    KestruneLog(5, "Loading RBL default settings");
    hosts_.clear();
    cursor_ = hosts_.end();
    failed_ = true;
    ldapClient client;
    if (!Open(&client))
        return;
    const SearchReq found = client.ldapClientSearch(nullptr, kSubtree, false, kFilter);
    client.ldapClientUnbind();
    if (found.failed) {
        KestruneLog(1, "Unable to read the RBL default settings from LDAP server");
        return;
    }
    for (const SearchEntry& entry : found.entries) {
        for (const SearchAttribute& attribute : entry.attributes) {
            if (attribute.name != kAttribute)
                continue;
            if (auto host = ParseRblHost(attribute.value, local_name)) {
                LogHost(*host);
                hosts_.push_front(std::move(*host));
            }
        }
    }
    loaded_ = now;
    failed_ = false;
    KestruneLog(5, "Done");
}

const RblHost* RblDefaults::Find(const std::string& host) const
{
    for (const RblHost& known : hosts_)
        if (EqualNoCase(known.name, host))
            return &known;
    return nullptr;
}

int RblDefaults::Action(const std::string& host) const
{
    const RblHost* known = Find(host);
    return known ? known->action : kSpamDiscard;
}

int RblDefaults::Mode(const std::string& host) const
{
    const RblHost* known = Find(host);
    return known ? known->mode : 0;
}

bool RblDefaults::AnyWithMode0() const
{
    for (const RblHost& host : hosts_)
        if (host.mode == 0)
            return true;
    return false;
}

const char* RblDefaults::FirstHost()
{
    cursor_ = hosts_.begin();
    return cursor_ == hosts_.end() ? nullptr : cursor_->name.c_str();
}

const char* RblDefaults::NextHost()
{
    if (cursor_ != hosts_.end())
        ++cursor_;
    return cursor_ == hosts_.end() ? nullptr : cursor_->name.c_str();
}

}  // namespace dl
