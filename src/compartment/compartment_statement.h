#pragma once
// CMPTMODEL: turns one statement into programming statements that compute the closed-form solution of a linear model of
// one to three compartments.

#include "compartment/options.h"

namespace torvale::compartment {

// zcmpt: the lines that the statement stands for, in order; none when it is wrong, and the log says why. `data` are the
// variables of the input data set in order; `earlier` is the number of CMPTMODEL statements before this one;
// `writes_log` tells that the program before the statement sends its PUT statements to the log. (z numeric, cmpt
// compartments.)
std::vector<std::string> zcmpt(const syntax::STMT& statement, std::span<const Variable> data, int earlier,
                               bool writes_log, const host::MessagePlace& place, host::MessageSink& log);

} // namespace torvale::compartment
