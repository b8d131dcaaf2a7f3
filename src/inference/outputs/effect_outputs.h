#pragma once
// Empirical Bayes estimates as data: RANDOM OUT=, OUTR=, OUTRI$.

#include "integration/posterior/posterior.h"

namespace torvale::inference {

// open_effect_outputs: opens the data sets of all levels and declares their columns. A level without OUT= of its own
// gets one named _R_SUBJECT_LEVEL when OUTR= wants it. Returns 0, or 1 after a message.
int open_effect_outputs(model::NX& n);

// write_effect_outputs: the rows of the BY group in hand: the outermost level first, its subjects in the order of the
// index, or of their names with several levels; effects in the order of the statement.
// With "Shrinkage" where such a data set is wanted.
void write_effect_outputs(model::NX& n, const integration::Posterior& posterior);

// write_round_outputs: the rows of OUTRI$: where the effects of all levels stand after each round of EBITER$ at the
// estimates. Returns 0 or the engine's code above 2.
int write_round_outputs(model::NX& n);

} // namespace torvale::inference
