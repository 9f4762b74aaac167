// The archive index schedule: the pages of all archives are brought up to date on one server-wide
// schedule, by a worker thread.
//
// The moment lies in "<data path>/index.dt". The worker has a list cache of its own, is detached,
// and ends after one pass over all lists, whatever becomes of each; the service goes on with the
// queue meanwhile. There is one worker at a time, and one for each moment, also when the file
// cannot be written.
#pragma once

namespace dl
{

// The check; main thread, once per turn of the main loop.
void RunArchiveIndexSchedule();

// Whether a worker is at work: the process must not take down what it uses.
[[nodiscard]] bool ArchiveWorkerRuns();

// The worker's one pass, for the thread that the check starts and for tests.
void GenerateArchiveIndexes();

}  // namespace dl
