// The Bayesian check of one message for one list: classify, then do what the list says.
#pragma once

#include <string>

#include "antispam/antispam_config.h"
#include "antispam/bayesian_filter.h"

namespace dl
{

enum class BayesianVerdict {
    kHam = 0,  // or undetermined, and the list does not file
    kNotUsable = 1,
    kDisabled = 2,
    kBounced = 3,
    kDiscard = 4,
    kFiled = 5,
    kRewritten = 6,
    kFailed = 7,  // the classifier, or what was to be done
    kNoSettings = 8,
    kNotLocked = 9,
    kWhiteListed = 10,
};

struct BayesianMessage {
    std::string sender;
    std::string recipient;
    std::string mailbox;  // directory with the word database, into which mail is filed
    std::string path;     // of the message file, with its ".msg"
    std::string output;   // where a rewritten copy goes; the caller's to use
};

// `settings` null: the list has none. What the classifier writes as its output file is thrown away.
// Of a discarded message nothing is changed: discarding is the caller's.
[[nodiscard]] BayesianVerdict BayesianCheck(BayesianFilter* filter, const AntiSpamConfig* settings,
                                            const BayesianMessage& message);

}  // namespace dl
