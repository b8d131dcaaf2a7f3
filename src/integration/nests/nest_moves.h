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

// find_single_moves: the same, where every level has one effect.
void find_single_moves(const model::NX& n, model::TVLThreadCtx& ctx, const double* cross);

// for_moved: f(argument, its derivative's place) for the arguments of a level's prior that a parameter moves.
template <class F> void for_moved(const model::REFFECT& reff, int parameter, F&& f)
{
  const auto j = static_cast<std::size_t>(parameter);
  for (int m = reff.moved_first[j]; m < reff.moved_first[j + 1]; ++m) {
    const auto& [argument, place] = reff.moved[static_cast<std::size_t>(m)];
    f(argument, place);
  }
}

} // namespace torvale::integration
