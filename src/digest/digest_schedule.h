// The digest schedule: sends every list's digest that is due, and moves the list on to its next
// moment.
//
// The moment lies in the list's "digest.dt"; a list without that file gets no digest. A moment that
// was missed is made up for once; a schedule that was brought forward takes effect at the next
// look. Main thread.
#pragma once

#include <string>

namespace dl
{

void RunDigestSchedule(const std::string& channel);

}  // namespace dl
