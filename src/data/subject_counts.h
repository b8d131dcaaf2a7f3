#pragma once
// Counts of each subject's usable rows, and the check of what must be constant within a subject.

#include "data/pass_findings.h"

namespace torvale::data {

// count_subjects: fills the subjects of a level (used rows, first and last of them, weight) and its counts;
// distribution arguments (message 137), the data variables behind them (146) and the replicate count (9203) must not
// change within one. Returns 0, or 1 to skip the BY group (said, and n.tvlrc raised).
int count_subjects(model::NX& n, const PassFindings& pass, model::REFFECT& reff);

} // namespace torvale::data
