#pragma once
// The terms of the partial fractions under their customary names, for programs that look at them. The results do not
// depend on them: they lose digits where exponents are near each other, and are missing where two are equal.

#include "compartment/statement_text.h"

namespace torvale::compartment {

void write_partial_fractions(StatementText& text, const Model& model);

} // namespace torvale::compartment
