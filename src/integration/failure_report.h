#pragma once

#include "model/run_record.h"

namespace torvale::integration {

// report_failure: says which subject or observation made the last evaluation fail, and why: the first one in subject order.
void report_failure(const model::NX& n);

} // namespace torvale::integration
