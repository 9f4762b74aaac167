#include "antispam/antispam_config.h"

#include <fnmatch.h>

#include <array>
#include <cstdlib>
#include <new>

#include "platform/address/address.h"

namespace dl
{
namespace
{

const std::array<std::string, AntiSpamConfig::kTexts> kDefaults = {
    "Please stop sending spam message to me.",
    "Please stop sending spam message to me.",
    "***** SPAM MAIL REPORTED BY BAYESIAN FILTER *****",
    "system-spam",
    "my-spam",
    "undetermined",
    "spam",
    "non-spam",
    "",
    "",
};

// Calls `matches` with each element up to the first empty one; true at the first that matches.
template <typename Matches>
bool AnyElement(const std::string& list, Matches matches)
{
    std::size_t from = 0;
    while (from < list.size()) {
        const std::size_t comma = list.find(',', from);
        const std::string element =
            list.substr(from, comma == std::string::npos ? comma : comma - from);
        if (element.empty())
            return false;
        if (matches(element))
            return true;
        if (comma == std::string::npos)
            return false;
        from = comma + 1;
    }
    return false;
}

std::string_view WithoutLineEnd(std::string_view text)
{
    if (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    if (!text.empty() && text.back() == '\r')
        text.remove_suffix(1);
    return text;
}

std::string AfterComma(const std::string& text, std::size_t comma)
{
    return text.substr(comma + 1);
}

// A list that was read without one of its settings would be another list: it is not read then.
void OrThrow(bool stored)
{
    if (!stored)
        throw std::bad_alloc();
}

}  // namespace

const std::string& AntiSpamConfig::Get(Text field) const
{
    const std::optional<std::string>& stored = At(field);
    return stored ? *stored : kDefaults[static_cast<std::size_t>(field)];
}

bool AntiSpamConfig::Set(Text field, std::string_view value)
{
    std::optional<std::string>& stored = texts_[static_cast<std::size_t>(field)];
    try {
        stored =
            std::string(WithoutLineEnd(value));  // copied first: it may be part of the old text
    } catch (const std::bad_alloc&) {
        stored.reset();
        return false;
    }
    return true;
}

bool AntiSpamConfig::Add(Text field, std::string_view value)
{
    std::optional<std::string>& stored = texts_[static_cast<std::size_t>(field)];
    if (!stored || stored->empty())
        return Set(field, value);
    value = WithoutLineEnd(value);
    if (value.empty())
        return true;  // an empty element would end the list
    try {
        if (stored->back() != ',')
            *stored += ',';
        *stored += value;
    } catch (const std::bad_alloc&) {
        stored.reset();
        return false;
    }
    return true;
}

const AntiSpamConfig::Host* AntiSpamConfig::Find(const std::string& host) const
{
    for (const Host& entry : hosts_)
        if (EqualNoCase(entry.name, host))
            return &entry;
    return nullptr;
}

bool AntiSpamConfig::SetHostAction(const std::string& host, int action,
                                   const std::optional<std::string>& argument)
{
    try {
        for (Host& entry : hosts_) {
            if (EqualNoCase(entry.name, host)) {
                entry.action = action;
                entry.argument.reset();  // out of memory leaves none, not the one of another action
                entry.argument = argument;
                return true;
            }
        }
        hosts_.push_front({host, action, argument});
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool AntiSpamConfig::RemoveHostAction(const std::string& host)
{
    for (auto entry = hosts_.begin(); entry != hosts_.end(); ++entry) {
        if (EqualNoCase(entry->name, host)) {
            hosts_.erase(entry);
            return true;
        }
    }
    return false;
}

bool AntiSpamConfig::HasHostAction(const std::string& host) const
{
    return Find(host) != nullptr;
}

int AntiSpamConfig::HostAction(const std::string& host) const
{
    const Host* entry = Find(host);
    return entry ? entry->action : kestrune_action_;
}

const std::string& AntiSpamConfig::HostFolder(const std::string& host) const
{
    const Host* entry = Find(host);
    if (entry && entry->action == kSpamFile && entry->argument)
        return *entry->argument;
    return Get(Text::kSystemSpamFolder);
}

const std::string& AntiSpamConfig::HostBounceReason(const std::string& host) const
{
    const Host* entry = Find(host);
    if (entry && entry->action == kSpamBounce && entry->argument)
        return *entry->argument;
    return Get(Text::kXBounceReason);
}

bool AntiSpamConfig::IsWhitelistedSender(const std::string& address) const
{
    return AnyElement(Get(Text::kWhiteList), [&](const std::string& pattern) {
        return fnmatch(pattern.c_str(), address.c_str(), 0) == 0;
    });
}

bool AntiSpamConfig::IsWhitelistedIP(const std::string& address) const
{
    const std::uint32_t number = AddressNumber(address);
    return AnyElement(Get(Text::kIPWhiteList), [&](const std::string& element) {
        const std::size_t dash = element.find('-');
        if (dash == std::string::npos)
            return AddressNumber(element) == number;
        return AddressNumber(element.substr(0, dash)) <= number &&
               number <= AddressNumber(element.substr(dash + 1));
    });
}

void AntiSpamConfig::ApplyAttribute(std::string_view name, const std::string& value)
{
    if (EqualNoCase(name, "x-whitelist"))
        OrThrow(Add(Text::kWhiteList, value));
    else if (EqualNoCase(name, "x-ipwhitelist"))
        OrThrow(Add(Text::kIPWhiteList, value));
    else if (EqualNoCase(name, "x-kvtblaction"))
        ApplyHostAction(value);
    else if (EqualNoCase(name, "x-spamaction"))
        ApplySpamAction(value);
}

void AntiSpamConfig::ApplySpamAction(const std::string& value)
{
    const std::size_t comma = value.find(',');
    if (StartsWithNoCase(value, "ignore")) {
        kestrune_action_ = kSpamIgnore;
    } else if (StartsWithNoCase(value, "discard")) {
        kestrune_action_ = kSpamDiscard;
    } else if (StartsWithNoCase(value, "bounce") && comma != std::string::npos) {
        kestrune_action_ = kSpamBounce;
        OrThrow(Set(Text::kXBounceReason, AfterComma(value, comma)));
    }
}

void AntiSpamConfig::ApplyHostAction(const std::string& value)
{
    const std::size_t comma = value.find(',');
    if (comma == std::string::npos)
        return;
    const std::string host = value.substr(0, comma);
    const std::string action = AfterComma(value, comma);
    const std::size_t second = action.find(',');
    if (StartsWithNoCase(action, "ignore"))
        OrThrow(SetHostAction(host, kSpamIgnore, std::nullopt));
    else if (StartsWithNoCase(action, "discard"))
        OrThrow(SetHostAction(host, kSpamDiscard, std::nullopt));
    else if (StartsWithNoCase(action, "bounce") && second != std::string::npos)
        OrThrow(SetHostAction(host, kSpamBounce, AfterComma(action, second)));
}

std::uint32_t AddressNumber(const std::string& dotted)
{
    const char* text = dotted.c_str();
    std::uint32_t number = 0;
    for (int i = 0; i < 4; ++i) {
        if (i > 0 && *text++ != '.')
            return 0;
        char* end = nullptr;
        const long part = std::strtol(text, &end, 10);
        if (end == text || part < 0 || part > 255)
            return 0;
        number = number << 8 | static_cast<std::uint32_t>(part);
        text = end;
    }
    return number;
}

}  // namespace dl
