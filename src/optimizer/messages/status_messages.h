#pragma once

#include "optimizer/minstr.h"

namespace torvale::optimizer {

// report_status: the messages of a termination code, and what else a user should know of the returned point.
void report_status(MINSTR* str, int code);

} // namespace torvale::optimizer
