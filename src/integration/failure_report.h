#pragma once

#include "model/run_record.h"

namespace torvale::integration {

// report_failure: says which subject or observation made the last evaluation fail, and why: the first one in subject order.
void report_failure(const model::NX& n);
// explain_failure: evaluates once more at `parm`, where the objective failed, with that report. n.parm is as before.
void explain_failure(model::NX& n, const std::vector<double>& parm);

} // namespace torvale::integration
