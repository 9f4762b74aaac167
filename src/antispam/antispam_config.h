// AntiSpamConfig: what one list does with a message that was marked as spam.
//
// Created empty by the list loader, which fills it from the list's directory values; owned by the
// list's record. It can also be read from and written to a file "antispam.cfg". Getters of texts
// give the default when the field was never set. Logs with the tag "AntiSpam Config". One thread at
// a time.
#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <string_view>

namespace dl
{

// Actions for a mark of a scanner or a blacklist.
inline constexpr int kSpamIgnore = 0;
inline constexpr int kSpamDiscard = 1;
inline constexpr int kSpamFile = 2;
inline constexpr int kSpamBounce = 3;

// Actions for a Bayesian verdict.
inline constexpr int kBayesDisable = 0;
inline constexpr int kBayesDiscard = 1;
inline constexpr int kBayesBounce = 2;
inline constexpr int kBayesChangeSubject = 3;
inline constexpr int kBayesAddHeader = 4;
inline constexpr int kBayesFile = 5;

class AntiSpamConfig
{
 public:
    enum class Text {
        kBounceReason,
        kXBounceReason,
        kSpamSubject,
        kSystemSpamFolder,
        kUserSpamFolder,
        kUndeterminedFolder,
        kSpamFolder,
        kHamFolder,
        kWhiteList,
        kIPWhiteList,
    };
    static constexpr std::size_t kTexts = 10;

    AntiSpamConfig() = default;
    // Reads "antispam.cfg" in `folder`; a missing file leaves the defaults.
    explicit AntiSpamConfig(const std::string& folder);

    [[nodiscard]] int KestruneAction() const { return kestrune_action_; }
    void SetKestruneAction(int action) { kestrune_action_ = action; }
    [[nodiscard]] int BayesianFilterAction() const { return bayesian_action_; }
    void SetBayesianFilterAction(int action) { bayesian_action_ = action; }

    // The stored text, or the field's default (empty for the two white lists).
    [[nodiscard]] const std::string& Get(Text field) const;
    [[nodiscard]] bool IsSet(Text field) const { return At(field).has_value(); }
    // Stores a copy without one trailing LF and then one trailing CR. False when out of memory; the
    // field is empty then.
    [[nodiscard]] bool Set(Text field, std::string_view value);
    // Appends to a white list, as one more element; of any number of values none gets lost. Result
    // as of Set.
    [[nodiscard]] bool Add(Text field, std::string_view value);

    // Actions that the list states for single blacklist hosts; names compare without regard to
    // case. The argument is the folder of "file" and the reason of "bounce". False when out of
    // memory.
    [[nodiscard]] bool SetHostAction(const std::string& host, int action,
                                     const std::optional<std::string>& argument);
    bool RemoveHostAction(const std::string& host);
    [[nodiscard]] bool HasHostAction(const std::string& host) const;
    [[nodiscard]] int HostAction(
        const std::string& host) const;  // KestruneAction() for an unknown one
    [[nodiscard]] const std::string& HostFolder(const std::string& host) const;
    [[nodiscard]] const std::string& HostBounceReason(const std::string& host) const;

    // Shell patterns, compared with regard to case; an empty element ends the list.
    [[nodiscard]] bool IsWhitelistedSender(const std::string& address) const;
    // Dotted addresses and ranges "low-high". A text that is no address counts as 0.
    [[nodiscard]] bool IsWhitelistedIP(const std::string& address) const;

    // One attribute of a list's entry in the directory: x-spamaction, x-kvtblaction, x-whitelist or
    // x-ipwhitelist, in any case. Others say nothing of spam and change nothing. Throws
    // std::bad_alloc.
    void ApplyAttribute(std::string_view name, const std::string& value);
    // The values of the first two: "ignore", "discard", "bounce,<text>";
    // "<host>,<action>[,<text>]". Anything else is ignored.
    void ApplySpamAction(const std::string& value);
    void ApplyHostAction(const std::string& value);

    // The file form. False when the file cannot be opened, not be read to its end, or not be
    // written whole. Save writes to Path(); an action that has no word is written as the first.
    [[nodiscard]] bool Load(const std::string& path);
    [[nodiscard]] bool Save() const;
    [[nodiscard]] const std::optional<std::string>& Path() const { return path_; }

 private:
    struct Host {
        std::string name;
        int action;
        std::optional<std::string> argument;
    };

    [[nodiscard]] const std::optional<std::string>& At(Text field) const
    {
        return texts_[static_cast<std::size_t>(field)];
    }
    [[nodiscard]] const Host* Find(const std::string& host) const;
    void ReadLine(std::string_view line, int* host_action);
    void ReadHostLine(std::string_view key, std::string_view value, int* host_action);

    int kestrune_action_ = kSpamIgnore;
    int bayesian_action_ = kBayesDisable;
    std::optional<std::string> texts_[kTexts];
    std::optional<std::string> path_;
    std::list<Host> hosts_;  // newest first
};

// The number of a dotted IPv4 address; 0 for anything else.
[[nodiscard]] std::uint32_t AddressNumber(const std::string& dotted);

}  // namespace dl
