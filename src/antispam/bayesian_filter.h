// The binding of an external classifier: a function in a library, or a program.
//
// Built from the configuration, once, and used by one thread. The classifier keeps its words in
// ".bayesian" in a mailbox directory; "bayesian.lock" there and the learner's pid file keep
// classification and learning apart, also across processes. Logs with the tag "Bayesian filter".
#pragma once

#include <string>

#include "antispam/bayesian_settings.h"

namespace dl
{

enum class Classification {
    kHam = 0,
    kSpam = 1,
    kUndetermined = 2,
    kError = 3,
    kNotUsable = 4,  // no classifier is configured
};

// (sender, recipient, word database, message file, output file); 0 ham, 1 spam, 2 undetermined,
// anything else an error.
using ClassifierFunction = int (*)(const char*, const char*, const char*, const char*, const char*);

class BayesianFilter
{
 public:
    explicit BayesianFilter(BayesianFilterSettings settings = ReadBayesianSettings());
    ~BayesianFilter();
    BayesianFilter(const BayesianFilter&) = delete;
    BayesianFilter& operator=(const BayesianFilter&) = delete;

    [[nodiscard]] const BayesianFilterSettings& Settings() const { return settings_; }
    [[nodiscard]] bool Usable() const { return usable_; }

    // A library that could not be loaded before is tried again; when it fails again the answer is
    // an error from then on.
    [[nodiscard]] Classification Classify(const std::string& sender, const std::string& recipient,
                                          const std::string& mailbox, const std::string& message,
                                          const std::string& output);

    // Runs one of the learning command lines of the settings. False when it is empty, cannot be
    // built, or did not end by itself; its exit code is not looked at.
    bool Learn(const std::string& command_line, const std::string& mailbox,
               const std::string& message) const;

    // Waits up to `time_out` minutes for the lock of a mailbox. True also when the lock file could
    // not be made and no learner runs: what is there is what a crash left.
    [[nodiscard]] bool Lock(const std::string& mailbox) const;
    void Unlock(const std::string& mailbox) const;

    // For the learner: its process id, 4 bytes in machine order. False, and no file, when it cannot
    // be written.
    [[nodiscard]] bool WritePidFile() const;
    // Whether the process that the pid file names exists.
    [[nodiscard]] bool LearnerRuns() const;

 private:
    void OpenLibrary();

    BayesianFilterSettings settings_;
    bool usable_ = false;
    void* library_ = nullptr;
    ClassifierFunction function_ = nullptr;
};

// The classification of an exit code; the lists of codes are looked at in the order ham, spam,
// undetermined, error. A code that is in no list is ham.
[[nodiscard]] Classification ClassifyExitCode(const BayesianFilterSettings& settings, int code);

}  // namespace dl
