#include "dispatch/content_scan.h"

#include "lists/dllist.h"
#include "platform/log/log.h"
#include "platform/metrics/metrics.h"

namespace dl
{

ScanResult ScanContent(const Incoming& message, const std::string& list)
{
    SpamChecker* checker = ListCache().GetSpamChecker();
    const AntiSpamConfig* settings = ListCache().GetSpamSettings(list);
    if (!checker || !settings)
        return ScanResult::kPassed;
    DlLog(5, "Running Kestrune...");
    checker->SetListSettings(settings, list);
    checker->LoadRblDefaults();
    const SpamVerdict verdict = checker->Check(message.Sender(), "", message.MessagePath());
    // The settings belong to the list cache, whose next refresh frees them.
    checker->SetListSettings(nullptr, "");
    if (verdict == SpamVerdict::kDiscarded)
        DlLog(5,
              "Discarded message (%lX) to mailing list %s because it was marked as spam message by "
              "the system",
              message.id, list.c_str());
    else if (verdict == SpamVerdict::kBounced)
        DlLog(5,
              "Bounced message (%lX) to mailing list %s because it was marked as spam message by "
              "the system",
              message.id, list.c_str());
    DlLog(5, "Done...");
    if (verdict == SpamVerdict::kDiscarded)
        Count(Metric::kRefusedSpamDiscarded);
    else if (verdict == SpamVerdict::kBounced)
        Count(Metric::kRefusedSpamBounced);
    if (verdict == SpamVerdict::kUnknown)
        return ScanResult::kWait;
    return verdict == SpamVerdict::kDiscarded || verdict == SpamVerdict::kBounced
               ? ScanResult::kSpam
               : ScanResult::kPassed;
}

}  // namespace dl
