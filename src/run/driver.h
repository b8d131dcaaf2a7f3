#pragma once
// The driver of one step: the only place that knows the order of a run.

#include "model/run_record.h"

namespace torvale::run {

// What a step came to.
struct StepOutcome {
  int return_code = 0; // 0, 4, 1008, 1012, 1016, 3000
  int exit_code = 0;   // ExitCode
};

// hsttorvl: runs one step: statement processing, then for each BY group data pass, starting values, fit, tables. n
// holds the host, the parsed statements, the source map and the input data set; nothing survives the call but what the
// host was given.
StepOutcome hsttorvl(model::NX& n);

} // namespace torvale::run
