#include "modes/nest_leaves.h"

#include "evaluation/record_sums.h"

#include <algorithm>

namespace torvale::modes {

using model::BatchWork;
using model::ModeSearch;
using model::NestLevel;
using model::NestWork;
using model::NX;
using model::TVLThreadCtx;

namespace {

constexpr int most_columns = 256; // of one run

} // namespace

int run_leaves(const NX& n, TVLThreadCtx& ctx, const model::ModelProgram& program, int count, double* sums, int column)
{
  BatchWork& b = ctx.batch;
  const NestWork& w = ctx.nests;
  for (int first = 0; first < count; first += most_columns) {
    const int part = std::min(most_columns, count - first);
    int node[most_columns];
    for (int a = 0; a < part; ++a) {
      const auto slot = static_cast<std::size_t>(w.columns[static_cast<std::size_t>(first + a)]);
      b.column[slot] = column + first + a;
      node[a] = w.leaf_of_slot[slot];
    }
    for (const NestLevel& l : w.level) {
      for (int i = 0; i < l.own; ++i) {
        double* const u = b.ran.data() + (l.place + i) * b.pair_stride;
        for (int a = 0; a < part; ++a) u[a] = l.u[static_cast<std::size_t>(node[a] * l.own + i)];
      }
      for (int a = 0; a < part; ++a) node[a] = l.nodes->parent[static_cast<std::size_t>(node[a])];
    }
    ctx.frame->set_points(b.ran.data(), part, static_cast<int>(b.pair_stride));
    const int rc = evaluation::tvllogl(n, ctx, {w.columns.data() + first, part, 1},
                                       {program, sums + column + first, b.mode_stride});
    if (rc != 0) return rc;
  }
  return 0;
}

void keep_leaf_sums(const NX& n, TVLThreadCtx& ctx, int count, const double* sums)
{
  const BatchWork& b = ctx.batch;
  NestWork& w = ctx.nests;
  const int* const slots = w.columns.data();
  const auto found = [&](int slot) {
    const auto leaf = static_cast<std::size_t>(w.leaf_of_slot[static_cast<std::size_t>(slot)]);
    return w.search[static_cast<std::size_t>(w.nest_of_leaf[leaf])].state == ModeSearch::found;
  };
  bool whole = count > 0 && slots[count - 1] - slots[0] == count - 1; // one row of slots, all of which are kept
  for (int i = 0; i < count && whole; ++i) whole = found(slots[i]);
  for (const int place : n.programs.mode.outputs) {
    const double* const from = sums + place * b.mode_stride;
    double* const to = w.leaf.data() + place * b.mode_stride;
    if (whole)
      std::copy_n(from + b.column[static_cast<std::size_t>(slots[0])], count, to + slots[0]);
    else
      for (int i = 0; i < count; ++i)
        if (found(slots[i])) to[slots[i]] = from[b.column[static_cast<std::size_t>(slots[i])]];
  }
}

} // namespace torvale::modes
