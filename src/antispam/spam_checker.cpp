#include "antispam/spam_checker.h"

#include "antispam/bounce_as_spam.h"
#include "antispam/file_message.h"
#include "antispam/spam_log.h"
#include "antispam/spam_marks.h"

namespace dl
{
void SpamChecker::SetListSettings(const AntiSpamConfig* settings, const std::string& list)
{
    settings_ = settings;
    list_ = list;
}

SpamVerdict SpamChecker::Check(const std::string& sender, const std::string& user,
                               const std::string& path)
{
    if (!settings_)
        return SpamVerdict::kNoSettings;
    if (settings_->IsWhitelistedSender(sender))
        return SpamVerdict::kWhiteListedSender;
    const SpamMarks marks = ReadSpamMarks(path, SubjectMarker(local_name_));
    if (!marks.readable)
        return SpamVerdict::kFailed;
    if (!marks.Any())
        return SpamVerdict::kNotMarked;
    if (marks.marked)
        KestruneLog(5, "%s was marked as spam message by SpamAssassin plugin", path.c_str());
    if (marks.blacklists)
        KestruneLog(5, "Detected x-kvtbl header (%s) in message file %s", marks.blacklists->c_str(),
                    path.c_str());
    const SpamDecision decision = DecideOnSpam(marks, *settings_, defaults_);
    if (decision.white_listed_ip)
        return SpamVerdict::kWhiteListedIP;
    if (decision.unknown)
        return SpamVerdict::kUnknown;
    switch (decision.action) {
        case kSpamIgnore:
            return SpamVerdict::kIgnored;
        case kSpamDiscard:
            return SpamVerdict::kDiscarded;
        case kSpamBounce:
            return BounceAsSpam(sender, list_, path, decision.reason) ? SpamVerdict::kBounced
                                                                      : SpamVerdict::kFailed;
        default:
            break;
    }
    return File(user, path, decision.folder);
}

SpamVerdict SpamChecker::File(const std::string& user, const std::string& path,
                              const std::string& folder)
{
    return !user.empty() && FileMessage(user, path, folder) ? SpamVerdict::kFiled
                                                            : SpamVerdict::kFailed;
}

bool SpamChecker::AddHam(const std::string& mailbox, const std::string& message)
{
    return bayesian_settings_ && filter_.Learn(filter_.Settings().add_ham, mailbox, message);
}

bool SpamChecker::AddSpam(const std::string& mailbox, const std::string& message)
{
    return bayesian_settings_ && filter_.Learn(filter_.Settings().add_spam, mailbox, message);
}

bool SpamChecker::RemoveHam(const std::string& mailbox, const std::string& message)
{
    return bayesian_settings_ && filter_.Learn(filter_.Settings().remove_ham, mailbox, message);
}

bool SpamChecker::RemoveSpam(const std::string& mailbox, const std::string& message)
{
    return bayesian_settings_ && filter_.Learn(filter_.Settings().remove_spam, mailbox, message);
}

}  // namespace dl
