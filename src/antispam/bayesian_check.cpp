#include "antispam/bayesian_check.h"

#include <unistd.h>

#include "antispam/bounce_as_spam.h"
#include "antispam/file_message.h"
#include "antispam/rewrite_marks.h"
#include "platform/files/files.h"

namespace dl
{
namespace
{

using Text = AntiSpamConfig::Text;

BayesianVerdict Done(bool success, BayesianVerdict verdict)
{
    return success ? verdict : BayesianVerdict::kFailed;
}

BayesianVerdict ActOnSpam(const AntiSpamConfig& settings, const BayesianMessage& message)
{
    switch (settings.BayesianFilterAction()) {
        case kBayesDiscard:
            return BayesianVerdict::kDiscard;
        case kBayesBounce:
            return Done(BounceAsSpam(message.sender, message.recipient, message.path,
                                     settings.Get(Text::kBounceReason)),
                        BayesianVerdict::kBounced);
        case kBayesChangeSubject:
            return Done(
                ChangeSubject(message.path, message.output, settings.Get(Text::kSpamSubject)),
                BayesianVerdict::kRewritten);
        case kBayesAddHeader:
            return Done(AddXHeader(message.path, message.output), BayesianVerdict::kRewritten);
        case kBayesFile:
            return Done(
                FileMessage(message.mailbox, message.path, settings.Get(Text::kUserSpamFolder)),
                BayesianVerdict::kFiled);
        default:
            return BayesianVerdict::kFailed;  // a number that is no action
    }
}

}  // namespace

BayesianVerdict BayesianCheck(BayesianFilter* filter, const AntiSpamConfig* settings,
                              const BayesianMessage& message)
{
    if (!settings)
        return BayesianVerdict::kNoSettings;
    if (settings->BayesianFilterAction() == kBayesDisable)
        return BayesianVerdict::kDisabled;
    if (settings->IsWhitelistedSender(message.sender))
        return BayesianVerdict::kWhiteListed;
    std::string output = KVTGetTempFileName(nullptr, "bay");
    if (output.empty())
        return BayesianVerdict::kFailed;
    Classification found = Classification::kNotUsable;
    const bool locked = filter->Lock(message.mailbox);
    if (locked) {
        found = filter->Classify(message.sender, message.recipient, message.mailbox, message.path,
                                 output);
        filter->Unlock(message.mailbox);
    }
    (void)unlink(output.c_str());  // the classifier may have removed it
    FreeString(&output);
    if (!locked)
        return BayesianVerdict::kNotLocked;
    switch (found) {
        case Classification::kHam:
            return BayesianVerdict::kHam;
        case Classification::kSpam:
            return ActOnSpam(*settings, message);
        case Classification::kUndetermined:
            if (settings->BayesianFilterAction() != kBayesFile)
                return BayesianVerdict::kHam;
            return Done(FileMessage(message.mailbox, message.path,
                                    settings->Get(Text::kUndeterminedFolder)),
                        BayesianVerdict::kFiled);
        case Classification::kNotUsable:
            return BayesianVerdict::kNotUsable;
        case Classification::kError:
            break;
    }
    return BayesianVerdict::kFailed;
}

}  // namespace dl
