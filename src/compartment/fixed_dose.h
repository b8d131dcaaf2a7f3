#pragma once
// One dose into any of the compartments at time 0, all in the statement's options.

#include "compartment/statement_text.h"

namespace torvale::compartment {

// Flags, constants, and the assignments of the results; missing where the input is invalid.
void write_fixed_dose(StatementText& text, const Model& model);

// The results of the model, with the compartments that they stand for (0 the depot).
struct Result {
  Option option;
  int compartment;
};
std::vector<Result> results(const Model& model);

} // namespace torvale::compartment
