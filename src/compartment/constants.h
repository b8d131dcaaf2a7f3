#pragma once
// What stands before every solution: flags of invalid input, scales and doses, rate constants, exponents.

#include "compartment/statement_text.h"

namespace torvale::compartment {

// The flags @ivb_err, @inf_err and @oral_err, all 0. With a fixed dose a time below 0, or a missing one, sets all.
void write_flags(StatementText& text, const Model& model);
// @scale0 ... and @dose0 ...; with dose records only the scales.
void write_scales_and_doses(StatementText& text, const Model& model);
// @k10, @k12, ... and @ka, with the checks that set the family's flag.
void write_rates(StatementText& text, const Model& model);
// @E1 ... and the exponents @lmb1, @lmb2 or @lmbd1 to @lmbd3, of two and three compartments.
void write_exponents(StatementText& text, const Model& model);

} // namespace torvale::compartment
