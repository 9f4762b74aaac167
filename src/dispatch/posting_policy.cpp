#include "dispatch/posting_policy.h"

#include "lists/mailing_list.h"

namespace dl
{

Refusal RefusalByHandling(int handling)
{
    switch (handling) {
        case kDiscardPosting:
            return {};
        case kBouncePosting:
            return {.bounce = true, .forward = false};
        case kForwardPosting:
            return {.bounce = false, .forward = true};
        default:
            return {.bounce = true, .forward = true};
    }
}

Admission AdmitByMode(int mode, bool member)
{
    if (mode == kOpenList || (mode == kClosedList && member))
        return Admission::kDeliver;
    return mode == kClosedList ? Admission::kRefuse : Admission::kForOwner;
}

}  // namespace dl
