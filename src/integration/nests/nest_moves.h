#pragma once

#include "model/run_record.h"

namespace torvale::integration {

// move_place: where a node's effect's derivative by a parameter stands; those of the nodes are side by side.
inline long move_place(const model::NestLevel& l, int node, int effect, int parameter, int parameters)
{
  return static_cast<long>(effect * parameters + parameter) * static_cast<long>(l.failure.size()) + node;
}

// find_nest_moves: how the modes of all good nests move with the parameters, into `move` of their levels; with slope.
// Needs priors with derivatives and what a search for the modes leaves. cross: ne x np rows of cross derivatives at the
// modes (ModelPrograms::cross_place), a column for each leaf's slot as b.column says. Overwrites lead and mode_bar.
void find_nest_moves(const model::NX& n, model::TVLThreadCtx& ctx, const double* cross);

} // namespace torvale::integration
