// SpamChecker: what to do with a posting that was marked as spam upstream. It scans no content
// itself. It also holds the binding of the Bayesian filter, which the service's own flow does not
// use.
//
// One object for the process, made and destroyed with the list cache. Before each check the caller
// sets the settings of the list that the posting is for, and lets the server's blacklist defaults
// reload when due. Logs with the tag "Kestrune". Main thread.
#pragma once

#include <string>

#include "antispam/antispam_config.h"
#include "antispam/bayesian_check.h"
#include "antispam/rbl_defaults.h"

namespace dl
{

enum class SpamVerdict {
    kNotMarked = 0,
    kIgnored = 1,
    kDiscarded = 2,
    kFiled = 3,
    kFailed = 4,  // message unreadable, no user to file it for, or filing or bouncing failed
    kNoSettings = 5,
    kBounced = 6,
    kWhiteListedSender = 7,
    kWhiteListedIP = 8,
    kUnknown = 9,  // the directory, which knows the server's defaults, does not answer
};

class SpamChecker
{
 public:
    // Selects this program's entries in the blacklist records and its key of the plug-in's
    // settings; "local" at first.
    void SetName(const std::string& name) { local_name_ = name; }
    [[nodiscard]] const std::string& Name() const { return local_name_; }
    // Not owned; `list` is the list's address, which a bounce names.
    void SetListSettings(const AntiSpamConfig* settings, const std::string& list);
    void LoadRblDefaults() { defaults_.ReloadWhenDue(local_name_); }
    [[nodiscard]] RblDefaults& Defaults() { return defaults_; }

    // `user` is the folder of the mailbox into which spam may be filed; empty for none.
    [[nodiscard]] SpamVerdict Check(const std::string& sender, const std::string& user,
                                    const std::string& path);

    // The classifier's settings, for the Bayesian check and for learning; not owned, null for none.
    void SetBayesianSettings(const AntiSpamConfig* settings) { bayesian_settings_ = settings; }
    [[nodiscard]] const AntiSpamConfig* BayesianSettings() const { return bayesian_settings_; }
    [[nodiscard]] BayesianFilter& Filter() { return filter_; }
    [[nodiscard]] BayesianVerdict CheckBayesian(const BayesianMessage& message)
    {
        return BayesianCheck(&filter_, bayesian_settings_, message);
    }
    // The four learning commands, on a message file. False without settings, and when the command
    // did not run.
    bool AddHam(const std::string& mailbox, const std::string& message);
    bool AddSpam(const std::string& mailbox, const std::string& message);
    bool RemoveHam(const std::string& mailbox, const std::string& message);
    bool RemoveSpam(const std::string& mailbox, const std::string& message);

 private:
    [[nodiscard]] static SpamVerdict File(const std::string& user, const std::string& path,
                                          const std::string& folder);

    BayesianFilter filter_;
    const AntiSpamConfig* bayesian_settings_ = nullptr;
    const AntiSpamConfig* settings_ = nullptr;
    std::string list_;
    std::string local_name_ = "local";
    RblDefaults defaults_;
};

}  // namespace dl
