// Training: what users put into their spam and non-spam folders is learnt, and the folders are
// emptied.
//
// The process that trains announces itself with BayesianFilter::WritePidFile and holds
// BayesianFilter::Lock of the mailbox. Logs each step at level 6, what went wrong at level 1, tag
// "Bayesian filter".
#pragma once

#include <string>

#include "antispam/antispam_config.h"
#include "antispam/bayesian_filter.h"

namespace dl
{

enum class TrainingFolder { kSpam, kHam };

// One pass over a folder of the mailbox, under the lock of its mailbox relation. Trained messages
// are deleted, or moved into the subfolder "trained", as the settings of the filter say; one that
// could not be copied there stays. True when the folder is empty, or not there. False also without
// settings.
bool Train(const BayesianFilter& filter, const AntiSpamConfig* settings, const std::string& mailbox,
           TrainingFolder folder);

}  // namespace dl
