#pragma once
// Walks over the nests of a batch, one good nest after the other, where levels have any number of effects.

#include "model/run_record.h"

namespace torvale::integration {

class NestWalk {
protected:
  NestWalk(const model::NX& n, model::TVLThreadCtx& ctx) : n_(n), ctx_(ctx), b_(ctx.batch), w_(ctx.nests), np_(n.nparm)
  {
  }

  // Calls f() with each good nest in hand.
  template <class F> void for_good(F&& f)
  {
    for (int nest = 0; nest < w_.nests; ++nest) {
      nest_ = static_cast<std::size_t>(nest);
      if (w_.failure[nest_] != 0) continue;
      gradient_ = w_.gradient.data() + static_cast<long>(nest) * np_;
      f();
    }
  }

  int first(const model::NestLevel& l) const { return l.nodes->first[nest_]; }
  int last(const model::NestLevel& l) const { return l.nodes->first[nest_ + 1]; }
  static int parent(const model::NestLevel& l, int v) { return l.nodes->parent[static_cast<std::size_t>(v)]; }

  // Calls f(level, node) for the ancestors of a node, nearest first.
  template <class F> void for_ancestors(std::size_t level, int v, F&& f)
  {
    for (std::size_t up = level + 1; up < w_.level.size(); ++up) {
      v = parent(w_.level[up - 1], v);
      f(w_.level[up], v);
    }
  }

  // Calls f(level, node) for a leaf and its ancestors.
  template <class F> void for_chain(int v, F&& f)
  {
    f(w_.level.front(), v);
    for_ancestors(0, v, f);
  }

  const model::NX& n_;
  model::TVLThreadCtx& ctx_;
  model::BatchWork& b_;
  model::NestWork& w_;
  const int np_;
  std::size_t nest_ = 0;       // in hand
  double* gradient_ = nullptr; // of it
};

} // namespace torvale::integration
