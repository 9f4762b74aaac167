// The archive index schedule: the pages of all archives are made anew on one server-wide schedule,
// by a worker thread.
//
// The moment lies in "<data path>/index.dt". The worker has a list cache of its own, is detached,
// and ends after one pass over all lists; the service goes on with the queue meanwhile.
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
