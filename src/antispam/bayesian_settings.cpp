#include "antispam/bayesian_settings.h"

#include "platform/address/address.h"
#include "platform/config/config.h"

namespace dl
{
namespace
{

constexpr char kSection[] = "BayesianFilter";
constexpr std::size_t kSize = 1024;

struct TextKey {
    const char* name;
    std::string BayesianFilterSettings::*field;
};
constexpr TextKey kDllKeys[] = {
    {"DllLocation", &BayesianFilterSettings::library},
    {"FunctionName", &BayesianFilterSettings::function},
};
constexpr TextKey kExeKeys[] = {
    {"CommandLine", &BayesianFilterSettings::command_line},
    {"ReturnCodeForHam", &BayesianFilterSettings::ham_codes},
    {"ReturnCodeForSpam", &BayesianFilterSettings::spam_codes},
    {"ReturnCodeForUndetermined", &BayesianFilterSettings::undetermined_codes},
    {"ReturnCodeForError", &BayesianFilterSettings::error_codes},
};
constexpr TextKey kLearningKeys[] = {
    {"AddHamMessageCommand", &BayesianFilterSettings::add_ham},
    {"AddSpamMessageCommand", &BayesianFilterSettings::add_spam},
    {"RemoveHamMessageCommand", &BayesianFilterSettings::remove_ham},
    {"RemoveSpamMessageCommand", &BayesianFilterSettings::remove_spam},
};

std::string Read(const char* key, const char* fallback)
{
    return GetPrivateProfileString(kSection, key, fallback, kSize, kGatewayConfig);
}

bool WriteKey(const char* key, const std::string& value)
{
    return WritePrivateProfileString(kSection, key, value, kGatewayConfig);
}

template <typename Keys>
void ReadTexts(const Keys& keys, BayesianFilterSettings* settings)
{
    for (const TextKey& key : keys)
        settings->*key.field = Read(key.name, "");
}

template <typename Keys>
bool WriteTexts(const Keys& keys, const BayesianFilterSettings& settings)
{
    for (const TextKey& key : keys)
        if (!WriteKey(key.name, settings.*key.field))
            return false;
    return true;
}

const char* ActionWord(TrainedAction action)
{
    return action == TrainedAction::kMove ? "Move" : "Delete";
}

}  // namespace

BayesianFilterSettings ReadBayesianSettings()
{
    BayesianFilterSettings settings;
    const std::string type = Read("Type", "");
    if (EqualNoCase(type, "DLL"))
        settings.type = BayesianType::kDll;
    else if (EqualNoCase(type, "EXE"))
        settings.type = BayesianType::kExe;
    else
        return settings;
    if (settings.type == BayesianType::kDll)
        ReadTexts(kDllKeys, &settings);
    else
        ReadTexts(kExeKeys, &settings);
    settings.time_out =
        GetPrivateProfileInt(kSection, "TimeOut", settings.time_out, kGatewayConfig);
    ReadTexts(kLearningKeys, &settings);
    settings.enable = EqualNoCase(Read("Enable", "NO"), "YES");
    // What is neither word is the default.
    if (EqualNoCase(Read("ActionOnTrainedSpamMessage", "Delete"), "Move"))
        settings.trained_spam = TrainedAction::kMove;
    if (EqualNoCase(Read("ActionOnTrainedHamMessage", "Move"), "Delete"))
        settings.trained_ham = TrainedAction::kDelete;
    return settings;
}

bool WriteBayesianSettings(const BayesianFilterSettings& settings)
{
    if (settings.type == BayesianType::kNone)
        return WriteKey("Type", "None");
    const bool dll = settings.type == BayesianType::kDll;
    return WriteKey("Type", dll ? "DLL" : "EXE") &&
           (dll ? WriteTexts(kDllKeys, settings) : WriteTexts(kExeKeys, settings)) &&
           WriteKey("TimeOut", std::to_string(settings.time_out)) &&
           WriteTexts(kLearningKeys, settings) &&
           WriteKey("Enable", settings.enable ? "YES" : "NO") &&
           WriteKey("ActionOnTrainedSpamMessage", ActionWord(settings.trained_spam)) &&
           WriteKey("ActionOnTrainedHamMessage", ActionWord(settings.trained_ham));
}

}  // namespace dl
