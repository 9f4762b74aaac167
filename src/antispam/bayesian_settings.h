// Section "BayesianFilter" of "qvmta.ini": how an external classifier is called.
#pragma once

#include <string>

namespace dl
{

enum class BayesianType { kNone = 0, kDll = 1, kExe = 2 };

enum class TrainedAction { kDelete = 0, kMove = 1 };

struct BayesianFilterSettings {
    BayesianType type = BayesianType::kNone;
    std::string library;       // DLL mode
    std::string function;      // DLL mode
    std::string command_line;  // EXE mode, and so are the lists of exit codes
    std::string ham_codes;
    std::string spam_codes;
    std::string undetermined_codes;
    std::string error_codes;
    int time_out = 15;    // minutes: the longest wait for the lock
    std::string add_ham;  // learning command lines
    std::string add_spam;
    std::string remove_ham;
    std::string remove_spam;
    bool enable = false;
    TrainedAction trained_spam = TrainedAction::kDelete;
    TrainedAction trained_ham = TrainedAction::kMove;
    std::string pid_file = "/var/run/bayesianlearn.pid";  // not read
};

// With a type that is neither "DLL" nor "EXE" (any case) no other key is read; the keys of one mode
// are not read in the other.
[[nodiscard]] BayesianFilterSettings ReadBayesianSettings();

// Writes the keys that reading such settings would read, and leaves the rest of the file as it is.
// False at the first key that cannot be written; the ones before it are.
[[nodiscard]] bool WriteBayesianSettings(const BayesianFilterSettings& settings);

}  // namespace dl
