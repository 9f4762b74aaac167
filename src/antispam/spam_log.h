// Log lines of the spam checks. A level above 6 is logged as 6, a line is cut at 8191 bytes.
#pragma once

namespace dl
{

// Tag "Kestrune": the marks and the verdict.
int KestruneLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// Tag "Bayesian filter": filing, rewriting and the classifier.
int BayesLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace dl
