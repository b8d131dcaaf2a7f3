#pragma once
// Parameters that are declared, and that nothing in the program depends on.

#include "model/run_record.h"

namespace torvale::model {

// unused: true when neither the program's statements, nor the likelihood, nor the arguments of a distribution, nor an
// ESTIMATE or CONTRAST depends on p. Such a parameter is warned of when the statements are processed.
bool unused(const ModelLists& n, const PARMSTR& p);

} // namespace torvale::model
