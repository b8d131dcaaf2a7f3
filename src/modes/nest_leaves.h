#pragma once
// Runs of programs over the leaves of nests.

#include "model/run_record.h"

namespace torvale::modes {

// run_leaves: sums a program over the records of the slots in w.columns (count of them) at their effects u, in runs
// that the record sums can take, into columns of `sums` from `column` on (rows b.mode_stride apart); b.column says
// which one a slot has. Returns 0 or the engine's code.
int run_leaves(const model::NX& n, model::TVLThreadCtx& ctx, const model::ModelProgram& program, int count,
               double* sums, int column = 0);

// keep_leaf_sums: of the leaves of such a run, the first `count` of w.columns, whose nests are found: results of
// programs.mode from `sums`, by b.column, into w.leaf.
void keep_leaf_sums(const model::NX& n, model::TVLThreadCtx& ctx, int count, const double* sums);

} // namespace torvale::modes
