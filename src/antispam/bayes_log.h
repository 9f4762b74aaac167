// Log lines of filing and of the Bayesian filter, tag "Bayesian filter"; a level above 6 is logged
// as 6.
#pragma once

namespace dl
{

int BayesLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace dl
